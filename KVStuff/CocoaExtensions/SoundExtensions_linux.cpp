#include <QAudioDevice>
#include <QMediaDevices>

#include "SoundExtensions_p.h"

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
