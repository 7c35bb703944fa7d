#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QTest>
#include <atomic>

#include "KVBundle.h"
#include "KVUserDefaults.h"
#include "LogCapture.h"
#include "SoundExtensions.h"
#include "SoundExtensions_p.h"
#include "SoundServer.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

using namespace SoundExtensions;
using namespace SoundExtensionsPrivate;

namespace {

const QString kResources = QStringLiteral(KV_INSTALLER_APP "/Contents/Resources/");
const QString kVolumeKey = QStringLiteral("com.apple.sound.beep.volume");

KVUserDefaults systemSound() { return KVUserDefaults(QStringLiteral("com.apple.systemsound")); }
QDateTime at(int seconds) {
    return QDateTime(QDate(2026, 11, 21), QTime(9, 15), Qt::UTC).addSecs(seconds);
}
bool makeFiles(const QString &folder, const QStringList &names) {
    for (const QString &name : names)
        if (!TestEnvironment::writeFile(folder + "/" + name, "sound")) return false;
    return true;
}

class SoundExtensionsTest : public testing::Test {
protected:
    void SetUp() override {
        QString error;
        server_ = SoundServer::shared(&error);
        ASSERT_NE(server_, nullptr) << "no sound server for the test: " << error.toStdString();
    }
    void TearDown() override {
        waitForSilentSoundThreads();
        setClock({});
        resetSoundDate();
        KVUserDefaults::setArgumentDomain({});
        overrideSystemAudioDeviceID(std::nullopt);
    }
    static void setSoundLog(bool on) {
        KVUserDefaults::setArgumentDomain({"test", "-soundLog", on ? "YES" : "NO"});
    }
    QVector<float> playAndRecord(KVSound &sound) {
        EXPECT_TRUE(server_->startCapture()) << "cannot record the test sink";
        playAsSoundEffect(sound);
        EXPECT_TRUE(QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000));
        return server_->stopCapture();
    }
    // The silent sounds prepareForSound starts at that second, played to their end.
    int prepareAt(int seconds) {
        seconds_ = seconds;
        const int before = silentSoundThreadsStarted();
        prepareForSound();
        waitForSilentSoundThreads();
        // Named sounds are kept, so this is the one the main thread plays.
        const std::shared_ptr<KVSound> silence = KVSound::soundNamed("SoundOfSilence");
        EXPECT_TRUE(silence && QTest::qWaitFor([&] { return !silence->isPlaying(); }, 5000));
        return silentSoundThreadsStarted() - before;
    }

    SoundServer *server_ = nullptr;
    std::atomic<int> seconds_{0};
};

}  // namespace

// Each stretch between breakpoints maps onto a quarter; no number means full volume.
TEST(SoundExtensionsAlertVolume, StoredSettingMapsPiecewiseOntoQuarterSteps) {
    // clang-format off
    const std::pair<QVariant, float> rows[] = {{0.35, 0.0f}, {0.41, 0.125f}, {0.54, 0.375f},
        {0.695, 0.625f}, {0.89, 0.875f}, {40.0, 1.0f}, {"loud", 0.0f}, {" 0.61 dB", 0.5f},
        {QStringList{"0.5"}, 1.0f}, {QVariant(), 1.0f}};
    // clang-format on
    for (const auto &[stored, expected] : rows) {
        systemSound().removeObjectForKey(kVolumeKey);
        if (stored.isValid()) systemSound().setObject(stored, kVolumeKey);
        EXPECT_NEAR(alertVolume(), expected, 1e-6) << qPrintable(stored.toString());
    }
}

// A device the sound refuses falls back to the default one; no device leaves the
// sound's own; without the log nothing is written.
TEST_F(SoundExtensionsTest, DoneSoundIsHeardOnceAtTheAlertVolumeAndTraced) {
    for (const QString &device :
         {systemAudioDeviceID(), _alertSoundAlertDeviceIdentifier(), soundEffectDeviceID()})
        EXPECT_EQ(device, SoundServer::kSinkName);
    const QString no = "kvtest_no_such_device";
    // systemAudioDeviceID's answer, the device the sound keeps, the trace's middle lines.
    // clang-format off
    const std::tuple<std::optional<QString>, QString, QStringList> rows[] = {
        {std::nullopt, "kvtest_sink", {"+SL: soundEffectID=kvtest_sink",
                                       "+SL: setPlaybackDeviceIdentifier:kvtest_sink"}},
        {no, QString(), {"+SL: soundEffectID=" + no, "+SL: setPlaybackDeviceIdentifier:" + no,
                         "+SL: exception No audio output device has the identifier " + no}},
        {QString(), "kvtest_sink", {"+SL: soundEffectID=(null)"}}, {no, QString(), {}}};
    // clang-format on
    for (const auto &[device, used, trace] : rows) {
        setSoundLog(!trace.isEmpty());
        overrideSystemAudioDeviceID(device);
        KVSound sound(kResources + "Done.wav");
        sound.setVolume(alertVolume());
        sound.setPlaybackDeviceIdentifier(SoundServer::kSinkName);
        LogCapture log;
        const QVector<float> samples = playAndRecord(sound);
        EXPECT_EQ(SoundServer::countSounds(samples), 1);
        EXPECT_NEAR(SoundServer::peak(samples), 0.5, 0.05);
        const QString play = sound.description();
        EXPECT_EQ(log.messages(), trace.isEmpty()
                                      ? QStringList()
                                      : QStringList("playAsSoundEffect: " + play)
                                            << "   device Null Output by PulseAudio id kvtest_sink"
                                            << trace << "+SL: play self (" + play + ")");
        EXPECT_EQ(sound.playbackDeviceIdentifier(), used);
    }
}

// One silent (and really silent) sound after more than 25 s without one, put off by any sound.
TEST_F(SoundExtensionsTest, PrepareForSoundPlaysSilenceOnlyAfter25SecondsWithoutSound) {
    // From the user's sound folder: the test has no bundle.
    const QString sounds = QDir::homePath() + "/.local/share/sounds";
    QDir().mkpath(sounds);
    QFile::copy(kResources + "SoundOfSilence.wav", sounds + "/SoundOfSilence.wav");
    setClock([this] { return at(seconds_); });
    resetSoundDate();
    setSoundLog(true);
    LogCapture log;
    ASSERT_TRUE(server_->startCapture());
    EXPECT_EQ(prepareAt(0), 1);
    EXPECT_EQ(SoundServer::peak(server_->stopCapture()), 0.0);
    EXPECT_EQ(prepareAt(25), 0);
    EXPECT_EQ(prepareAt(26), 1);
    EXPECT_EQ(lastSoundDate(), at(26));
    EXPECT_EQ(
        log.messages().filter(QRegularExpression("^playAsSoundEffect: .*SoundOfSilence$")).size(),
        2);
    seconds_ = 40;
    KVSound sound(kResources + "Done.wav");
    playAndRecord(sound);
    EXPECT_EQ(prepareAt(60), 0);
    EXPECT_EQ(prepareAt(66), 1);
}

// The application's sounds, then each folder's (Ogg in the theme's, no subfolders); a
// missing folder, a file, a name that is no UTF-8 and a FIFO never stop the listing.
TEST(SoundExtensionsCatalogue, ListsTheApplicationsThenEachFoldersSoundsAndFindsThemByName) {
    const QString root = TestEnvironment::makeTempDir("catalogue");
    const QString bundlePath = TestBundle::make(root, "Sounds", {}, false);
    const QString resources = bundlePath + "/Contents/Resources";
    const QString system = root + "/system", theme = root + "/theme", user = root + "/user";
    ASSERT_TRUE(makeFiles(resources, {"Glass.wav", "Glass.aiff", "notes.txt"}) &&
                makeFiles(system, {"Glass.aiff", "Tink.wav", "Deep/Deep.wav"}) &&
                makeFiles(theme, {"bell.oga", "alarm.ogg", "Ping.AIFF"}) &&
                makeFiles(user, {"Tink.wav", "Pop.mp3", "a file"}));
    ASSERT_EQ(mkfifo(QFile::encodeName(user + "/Pipe.wav").constData(), 0644), 0);
    close(open((QFile::encodeName(user) + "/\xff.wav").constData(), O_CREAT | O_WRONLY, 0644));
    const QList<SoundExtensionsPlatform::SoundFolder> folders = {
        {system, ""}, {theme, "oga"}, {root + "/missing", ""}, {user + "/a file", ""}, {user, ""}};
    const std::optional<KVBundle> bundle = KVBundle::bundleWithPath(bundlePath);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(applicationSoundFiles(*bundle),
              QStringList({resources + "/Glass.aiff", resources + "/Glass.wav"}));
    QStringList found = systemSoundFiles(folders);
    EXPECT_TRUE(found.first().startsWith(system) && found.last().startsWith(user));
    found.sort();
    EXPECT_EQ(found, QStringList({system + "/Glass.aiff", system + "/Tink.wav",
                                  theme + "/Ping.AIFF", theme + "/bell.oga", user + "/Pipe.wav",
                                  user + "/Pop.mp3", user + "/Tink.wav"}));
    for (const auto &[name, path] :
         {std::pair<QString, QString>{"Glass", resources + "/Glass.aiff"},
          {"Tink", system + "/Tink.wav"},
          {"glass", ""},
          {"Deep", ""}})
        EXPECT_EQ(pathOfSound(name, *bundle, folders), path) << qPrintable(name);
    EXPECT_EQ(KVSound(user + "/Pipe.wav").duration(), 0.0);
}

// Application names keep duplicates but not the silent sound; one in two folders is listed once.
TEST(SoundExtensionsCatalogue, NamesOfTheApplicationsAndTheSystemsSounds) {
    const QString resources = KVBundle::mainBundle().resourcePath();
    const QStringList bundled = {"KVTestGlass.aiff", "KVTestGlass.wav", "SoundOfSilence.wav"};
    ASSERT_TRUE(makeFiles(resources, bundled) &&
                makeFiles(qEnvironmentVariable("XDG_DATA_HOME") + "/sounds",
                          {"KVTestPop.mp3", "bell.wav"}));
    const QStringList names = applicationSounds();
    const QString silence = SoundExtensions::pathOfSound("SoundOfSilence");
    for (const QString &file : bundled) QFile::remove(resources + "/" + file);
    EXPECT_EQ(names.filter("KVTest"), QStringList({"KVTestGlass", "KVTestGlass"}));
    EXPECT_FALSE(names.contains("SoundOfSilence"));
    EXPECT_EQ(silence, resources + "/SoundOfSilence.wav");
    const QStringList sounds = systemSounds();
    EXPECT_EQ(sounds.count("bell"), 1);
    EXPECT_TRUE(sounds.contains("KVTestPop") && std::is_sorted(sounds.begin(), sounds.end()));
    EXPECT_EQ(SoundExtensions::pathOfSound("bell"),
              "/usr/share/sounds/freedesktop/stereo/bell.oga");
}
