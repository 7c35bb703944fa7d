// What the portable half of the sound helpers shares with its operating-system
// half and with the tests. Not part of the library's interface.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QVariant>
#include <functional>
#include <optional>

namespace SoundExtensionsPrivate {

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

// The operating-system half.
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
