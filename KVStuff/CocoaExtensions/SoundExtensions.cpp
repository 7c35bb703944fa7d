#include "SoundExtensions.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "KVLog.h"
#include "KVPath.h"
#include "KVUserDefaults.h"
#include "SoundExtensions_p.h"

namespace {

std::mutex s_dateLock;
QDateTime s_lastSoundDate;
std::function<QDateTime()> s_clock;

std::mutex s_overrideLock;
std::optional<QString> s_deviceIDOverride;

// The silent-sound threads: how many were started, how many still run.
std::atomic<int> s_silentThreadsStarted{0};
std::mutex s_silentThreadsLock;
std::condition_variable s_silentThreadsDone;
int s_silentThreadsRunning = 0;

// Anything with a number in it answers a float value; a text without one reads as 0.
std::optional<float> floatValue(const QVariant &object) {
    switch (object.typeId()) {
        case QMetaType::QString:
            return static_cast<float>(KVUserDefaults::doubleValue(object.toString()));
        case QMetaType::Bool:
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::Long:
        case QMetaType::ULong:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::Double:
        case QMetaType::Float:
            return object.toFloat();
        default:
            return std::nullopt;
    }
}

const QString kSilentSound = QStringLiteral("SoundOfSilence");

// "Glass" for ".../Glass.aiff".
QString soundName(const QString &path) {
    return KVPath::stringByDeletingPathExtension(KVPath::lastPathComponent(path));
}

QStringList soundNames(const QStringList &paths) {
    QStringList names;
    for (const QString &path : paths) names << soundName(path);
    return names;
}

}  // namespace

// ---- The catalogue ----

const QSet<QString> &SoundExtensions::soundFileExtensions() {
    // The quoted ones are file-type codes as the platform spells them.
    static const QSet<QString> extensions{"aiff",   "AIFF", "'AIFF'", "aif",    "AIF", "aifc",
                                          "AIFC",   "wav",  "WAV",    "'WAVE'", "snd", "SND",
                                          "au",     "AU",   "'ULAW'", "'ALAW'", "mp3", "MP3",
                                          "'Mp3 '", "ulw",  "ULW",    "m4p",    "m4a"};
    return extensions;
}

bool SoundExtensions::isSoundFileAtPath(const QString &path) {
    return soundFileExtensions().contains(KVPath::pathExtension(path));
}

QStringList SoundExtensionsPrivate::applicationSoundFiles(const KVBundle &bundle) {
    QStringList paths = bundle.pathsForResourcesOfType(QString());
    paths.removeIf([](const QString &path) { return !SoundExtensions::isSoundFileAtPath(path); });
    return paths;
}

QStringList SoundExtensionsPrivate::systemSoundFiles(
    const QList<SoundExtensionsPlatform::SoundFolder> &folders) {
    QStringList paths;
    for (const SoundExtensionsPlatform::SoundFolder &folder : folders) {
        for (const QString &entry : SoundExtensionsPlatform::folderEntries(folder.path)) {
            const bool accepted = SoundExtensions::isSoundFileAtPath(entry) ||
                                  (!folder.alsoAccepted.isEmpty() &&
                                   KVPath::pathExtension(entry) == folder.alsoAccepted);
            if (accepted) paths << folder.path + QLatin1Char('/') + entry;
        }
    }
    return paths;
}

QString SoundExtensionsPrivate::pathOfSound(
    const QString &name, const KVBundle &bundle,
    const QList<SoundExtensionsPlatform::SoundFolder> &folders) {
    // The silent sound is found here too; only the list of names leaves it out.
    for (const QStringList &paths : {applicationSoundFiles(bundle), systemSoundFiles(folders)}) {
        for (const QString &path : paths) {
            if (soundName(path) == name) return path;
        }
    }
    return QString();
}

QStringList SoundExtensions::applicationSoundFiles() {
    return SoundExtensionsPrivate::applicationSoundFiles(KVBundle::mainBundle());
}

QStringList SoundExtensions::applicationSounds() {
    QStringList names = soundNames(applicationSoundFiles());
    names.removeAll(kSilentSound);
    std::sort(names.begin(), names.end());
    return names;
}

QStringList SoundExtensions::systemSoundFiles() {
    return SoundExtensionsPrivate::systemSoundFiles(SoundExtensionsPlatform::soundFolders());
}

QStringList SoundExtensions::systemSounds() {
    QStringList names = soundNames(systemSoundFiles());
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

QString SoundExtensions::pathOfSound(const QString &name) {
    return SoundExtensionsPrivate::pathOfSound(name, KVBundle::mainBundle(),
                                               SoundExtensionsPlatform::soundFolders());
}

// ---- Playing ----

void SoundExtensions::playAsSoundEffect(KVSound &sound) {
    const bool log = KVUserDefaults::standardUserDefaults().boolForKey(QStringLiteral("soundLog"));
    if (log) {
        kvLog(QStringLiteral("playAsSoundEffect: %@"), sound.description());
        listAudioDevices();
    }
    const QString uid = systemAudioDeviceID();
    if (log) kvLog(QStringLiteral("+SL: soundEffectID=%@"), uid);
    if (!uid.isNull()) {
        if (log) kvLog(QStringLiteral("+SL: setPlaybackDeviceIdentifier:%@"), uid);
        QString error;
        if (!sound.setPlaybackDeviceIdentifier(uid, &error)) {
            if (log) kvLog(QStringLiteral("+SL: exception %@"), error);
            sound.setPlaybackDeviceIdentifier(QString());
        }
    }
    if (log) kvLog(QStringLiteral("+SL: play self (%@)"), sound.description());
    sound.play();
    setSoundDateNow();
}

// ---- Devices ----

QString SoundExtensions::systemAudioDeviceID() {
    {
        std::lock_guard guard(s_overrideLock);
        if (s_deviceIDOverride) return *s_deviceIDOverride;
    }
    return SoundExtensionsPlatform::defaultOutputDeviceID();
}

QString SoundExtensions::_alertSoundAlertDeviceIdentifier() {
    return SoundExtensionsPlatform::defaultOutputDeviceID();
}

QString SoundExtensions::soundEffectDeviceID() {
    return SoundExtensionsPlatform::soundEffectDeviceID();
}

void SoundExtensions::listAudioDevices() {
    for (const SoundExtensionsPlatform::AudioDevice &device :
         SoundExtensionsPlatform::audioDevices())
        kvLog(QStringLiteral("   device %s by %s id %@"), device.name.constData(),
              device.maker.constData(), device.identifier);
}

// ---- Alert volume ----

float SoundExtensions::alertVolume() {
    const KVUserDefaults defaults(QStringLiteral("com.apple.systemsound"));
    return SoundExtensionsPrivate::alertVolumeForStoredValue(
        defaults.objectForKey(QStringLiteral("com.apple.sound.beep.volume")));
}

float SoundExtensionsPrivate::alertVolumeForStoredValue(const QVariant &stored) {
    const std::optional<float> value = floatValue(stored);
    if (!value) return 1.0f;
    // Each stretch between the stored breakpoints maps linearly onto a
    // quarter of the volume; the two upper widths are the differences as
    // doubles hold them, not the literals 0.17 and 0.22.
    const double v = *value;
    double volume;
    if (v <= 0.35) {
        volume = 0.0;
    } else if (v <= 0.47) {
        volume = 0.00 + 0.25 * (v - 0.35) / 0.12;
    } else if (v <= 0.61) {
        volume = 0.25 + 0.25 * (v - 0.47) / 0.14;
    } else if (v <= 0.78) {
        volume = 0.50 + 0.25 * (v - 0.61) / (0.78 - 0.61);
    } else {
        volume = 0.75 + 0.25 * (v - 0.78) / (1.0 - 0.78);
    }
    const float result = static_cast<float>(volume);
    return result > 1.0f ? 1.0f : result;
}

// ---- Keeping the output awake ----

void SoundExtensions::setSoundDateNow() {
    const QDateTime now = SoundExtensionsPrivate::now();
    std::lock_guard guard(s_dateLock);
    s_lastSoundDate = now;
}

void SoundExtensions::prepareForSound() {
    {
        const QDateTime now = SoundExtensionsPrivate::now();
        std::lock_guard guard(s_dateLock);
        if (s_lastSoundDate.isValid() && s_lastSoundDate.msecsTo(now) <= 25000) return;
        // Noted before the thread starts (and under the same lock), so that
        // another call within the 25 seconds returns at the test above.
        s_lastSoundDate = now;
    }
    ++s_silentThreadsStarted;
    {
        std::lock_guard guard(s_silentThreadsLock);
        ++s_silentThreadsRunning;
    }
    std::thread([] {
        playSilentSoundThread();
        std::lock_guard guard(s_silentThreadsLock);
        --s_silentThreadsRunning;
        s_silentThreadsDone.notify_all();
    }).detach();
}

void SoundExtensions::playSilentSoundThread() {
    // The named sound is kept for the process's life; a missing one is
    // looked for again on the next call.
    const std::shared_ptr<KVSound> silence = KVSound::soundNamed(kSilentSound);
    if (!silence) return;
    silence->setVolume(0.01f);
    playAsSoundEffect(*silence);
}

// ---- Test seams ----

void SoundExtensionsPrivate::setClock(std::function<QDateTime()> clock) {
    std::lock_guard guard(s_dateLock);
    s_clock = std::move(clock);
}

QDateTime SoundExtensionsPrivate::now() {
    std::function<QDateTime()> clock;
    {
        std::lock_guard guard(s_dateLock);
        clock = s_clock;
    }
    return clock ? clock() : QDateTime::currentDateTimeUtc();
}

QDateTime SoundExtensionsPrivate::lastSoundDate() {
    std::lock_guard guard(s_dateLock);
    return s_lastSoundDate;
}

void SoundExtensionsPrivate::resetSoundDate() {
    std::lock_guard guard(s_dateLock);
    s_lastSoundDate = QDateTime();
}

int SoundExtensionsPrivate::silentSoundThreadsStarted() { return s_silentThreadsStarted; }

void SoundExtensionsPrivate::waitForSilentSoundThreads() {
    std::unique_lock guard(s_silentThreadsLock);
    s_silentThreadsDone.wait(guard, [] { return s_silentThreadsRunning == 0; });
}

void SoundExtensionsPrivate::overrideSystemAudioDeviceID(std::optional<QString> identifier) {
    std::lock_guard guard(s_overrideLock);
    s_deviceIDOverride = std::move(identifier);
}
