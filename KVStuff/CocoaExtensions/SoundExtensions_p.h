// What the portable half of the sound helpers shares with its operating-system
// half and with the tests. Not part of the library's interface.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <functional>
#include <optional>

#include "KVBundle.h"

// The operating-system half.
namespace SoundExtensionsPlatform {

// A sound folder; the desktop's sound theme keeps its sounds in a format
// beyond the catalogue's extensions, which its folder admits too.
struct SoundFolder {
    QString path;
    QString alsoAccepted;
};
// In the order they are searched: the system's, the local and the user's.
QList<SoundFolder> soundFolders();
// The names in the folder (not "." and ".."), in the order the system lists
// them; nothing when it is no folder. Names that are no UTF-8 are left out:
// no path made from them would find the file again.
QStringList folderEntries(const QString &folder);

}  // namespace SoundExtensionsPlatform

namespace SoundExtensionsPrivate {

// The catalogue over the given bundle and folders.
QStringList applicationSoundFiles(const KVBundle &bundle);
QStringList systemSoundFiles(const QList<SoundExtensionsPlatform::SoundFolder> &folders);
QString pathOfSound(const QString &name, const KVBundle &bundle,
                    const QList<SoundExtensionsPlatform::SoundFolder> &folders);

// The alert volume for a stored setting; 1.0 for a value that has no number.
float alertVolumeForStoredValue(const QVariant &stored);

// The clock the sound date is read from; an empty function is the system
// clock. Tests put in their own to step over the 25 seconds.
void setClock(std::function<QDateTime()> clock);
QDateTime now();
// Null until the first sound.
QDateTime lastSoundDate();
// Forgets the sound date, as at start.
void resetSoundDate();

// How many silent-sound threads prepareForSound has started so far.
int silentSoundThreadsStarted();
// Waits until every silent-sound thread has returned.
void waitForSilentSoundThreads();

// Replaces the answer of systemAudioDeviceID: nothing restores the real
// query, a null string stands for "no device".
void overrideSystemAudioDeviceID(std::optional<QString> identifier);

}  // namespace SoundExtensionsPrivate

namespace SoundExtensionsPlatform {

struct AudioDevice {
    QByteArray name;
    QByteArray maker;
    QString identifier;
};

// The output devices, in the order the sound server lists them.
QList<AudioDevice> audioDevices();
// The default output device's identifier, null when there is none.
QString defaultOutputDeviceID();
QString soundEffectDeviceID();

}  // namespace SoundExtensionsPlatform
