#include <dirent.h>

#include <QAudioDevice>
#include <QFile>
#include <QMediaDevices>

#include "KVSound_p.h"
#include "SoundExtensions_p.h"

QList<SoundExtensionsPlatform::SoundFolder> SoundExtensionsPlatform::soundFolders() {
    // The system's, the local and the user's, as named sounds are looked up;
    // the desktop's own event sounds (Ogg Vorbis) count with the system's.
    const QStringList folders = KVSoundPlatform::soundFolders();
    return {{folders.value(0), QString()},
            {QStringLiteral("/usr/share/sounds/freedesktop/stereo"), QStringLiteral("oga")},
            {folders.value(1), QString()},
            {folders.value(2), QString()}};
}

QStringList SoundExtensionsPlatform::folderEntries(const QString &folder) {
    QStringList names;
    DIR *directory = opendir(QFile::encodeName(folder).constData());
    if (!directory) return names;
    while (const dirent *entry = readdir(directory)) {
        const QByteArray name(entry->d_name);
        if (name == "." || name == "..") continue;
        const QString decoded = QFile::decodeName(name);
        if (QFile::encodeName(decoded) == name) names << decoded;
    }
    closedir(directory);
    return names;
}

// Qt Multimedia reaches the audio devices on Linux through the PulseAudio
// protocol (PulseAudio itself or PipeWire's server for it), so the server is
// the devices' maker as far as the program can tell.
QList<SoundExtensionsPlatform::AudioDevice> SoundExtensionsPlatform::audioDevices() {
    QList<AudioDevice> devices;
    for (const QAudioDevice &device : QMediaDevices::audioOutputs())
        devices.append({device.description().toUtf8(), QByteArrayLiteral("PulseAudio"),
                        QString::fromUtf8(device.id())});
    return devices;
}

QString SoundExtensionsPlatform::defaultOutputDeviceID() {
    const QAudioDevice device = QMediaDevices::defaultAudioOutput();
    return device.isNull() ? QString() : QString::fromUtf8(device.id());
}

// No audio settings file names a sound-effect device on Linux: desktop event
// sounds play on the sound server's default sink, which Qt reports as the
// default output.
QString SoundExtensionsPlatform::soundEffectDeviceID() { return defaultOutputDeviceID(); }
