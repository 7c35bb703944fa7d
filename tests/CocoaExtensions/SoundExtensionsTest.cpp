#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QRegularExpression>
#include <QTest>
#include <algorithm>
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

namespace {

const QString kResources = QStringLiteral(KV_INSTALLER_APP "/Contents/Resources/");
const QString kVolumeKey = QStringLiteral("com.apple.sound.beep.volume");
const QString kThemeBell = QStringLiteral("/usr/share/sounds/freedesktop/stereo/bell.oga");

KVUserDefaults systemSound() { return KVUserDefaults(QStringLiteral("com.apple.systemsound")); }
QDateTime at(int seconds) {
    return QDateTime(QDate(2026, 11, 21), QTime(9, 15), Qt::UTC).addSecs(seconds);
}
bool makeFiles(const QString &folder, const QStringList &names) {
    return std::all_of(names.begin(), names.end(), [&](const QString &name) {
        return TestEnvironment::writeFile(folder + "/" + name, "sound");
    });
}

// Every case here plays through the test's own sound server.
class SoundExtensionsTest : public testing::Test {
protected:
    void SetUp() override {
        QString error;
        server_ = SoundServer::shared(&error);
        ASSERT_NE(server_, nullptr) << "no sound server for the test: " << error.toStdString();
    }
    void TearDown() override {
        SoundExtensionsPrivate::waitForSilentSoundThreads();
        SoundExtensionsPrivate::setClock({});
        SoundExtensionsPrivate::resetSoundDate();
        KVUserDefaults::setArgumentDomain({});
        systemSound().removeObjectForKey(kVolumeKey);
        SoundExtensionsPrivate::overrideSystemAudioDeviceID(std::nullopt);
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
        const int before = SoundExtensionsPrivate::silentSoundThreadsStarted();
        prepareForSound();
        SoundExtensionsPrivate::waitForSilentSoundThreads();
        // The main thread plays it; named sounds are kept, so this is the one.
        const std::shared_ptr<KVSound> silence = KVSound::soundNamed("SoundOfSilence");
        EXPECT_TRUE(silence && QTest::qWaitFor([&] { return !silence->isPlaying(); }, 5000));
        return SoundExtensionsPrivate::silentSoundThreadsStarted() - before;
    }

    SoundServer *server_ = nullptr;
    std::atomic<int> seconds_{0};
};

}  // namespace

// Each stretch between breakpoints maps onto a quarter; no number means full volume.
TEST(SoundExtensionsAlertVolume, StoredSettingMapsPiecewiseOntoQuarterSteps) {
    // clang-format off
    const std::pair<QVariant, float> rows[] = {  // the last one leaves nothing stored
        {0.35, 0.0f}, {0.41, 0.125f}, {0.54, 0.375f}, {0.695, 0.625f}, {0.89, 0.875f},
        {40.0, 1.0f}, {"loud", 0.0f}, {" 0.61 dB", 0.5f}, {QStringList{"0.5"}, 1.0f}, {QVariant(), 1.0f}};
    // clang-format on
    for (const auto &[stored, expected] : rows) {
        systemSound().removeObjectForKey(kVolumeKey);
        if (stored.isValid()) systemSound().setObject(stored, kVolumeKey);
        EXPECT_NEAR(alertVolume(), expected, 1e-6) << qPrintable(stored.toString());
    }
}

// A device the sound refuses falls back to the default one; no device leaves the sound's own.
TEST_F(SoundExtensionsTest, DoneSoundIsHeardOnceAtTheAlertVolumeAndTraced) {
    for (const QString &device :
         {systemAudioDeviceID(), _alertSoundAlertDeviceIdentifier(), soundEffectDeviceID()})
        EXPECT_EQ(device, SoundServer::kSinkName);
    const QString refused = "kvtest_no_such_device";
    // systemAudioDeviceID's answer (none: the real one), the device the sound
    // keeps after choosing the test sink, and the trace between first and last line.
    // clang-format off
    const std::tuple<std::optional<QString>, QString, QStringList> rows[] = {
        {std::nullopt, "kvtest_sink", {"+SL: soundEffectID=kvtest_sink",
                                       "+SL: setPlaybackDeviceIdentifier:kvtest_sink"}},
        {refused, QString(), {"+SL: soundEffectID=" + refused,
                              "+SL: setPlaybackDeviceIdentifier:" + refused,
                              "+SL: exception No audio output device has the identifier " +
                                  refused}},
        {QString(), "kvtest_sink", {"+SL: soundEffectID=(null)"}}};
    // clang-format on
    setSoundLog(true);
    for (const auto &[device, used, trace] : rows) {
        SoundExtensionsPrivate::overrideSystemAudioDeviceID(device);
        KVSound sound(kResources + "Done.wav");
        sound.setVolume(alertVolume());
        sound.setPlaybackDeviceIdentifier(SoundServer::kSinkName);
        LogCapture log;
        const QVector<float> samples = playAndRecord(sound);
        EXPECT_EQ(SoundServer::countSounds(samples), 1);
        EXPECT_NEAR(SoundServer::peak(samples), 0.5, 0.05);
        EXPECT_EQ(log.messages(), QStringList("playAsSoundEffect: " + sound.description())
                                      << "   device Null Output by PulseAudio id kvtest_sink"
                                      << trace << "+SL: play self (" + sound.description() + ")");
        EXPECT_EQ(sound.playbackDeviceIdentifier(), used);
    }
    // Without the log nothing is written, on the fallback path too.
    setSoundLog(false);
    SoundExtensionsPrivate::overrideSystemAudioDeviceID(refused);
    KVSound quiet(kResources + "Done.wav");
    LogCapture log;
    EXPECT_EQ(SoundServer::countSounds(playAndRecord(quiet)), 1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(SoundExtensionsTest, ListsEveryOutputDeviceAndNothingWithoutDevices) {
    const int other = server_->addNullSink("kvtest_other");
    ASSERT_TRUE(other >= 0 && SoundServer::waitForQtOutput("kvtest_other"));
    LogCapture log;
    listAudioDevices();
    QStringList lines = log.messages();
    lines.sort();
    EXPECT_EQ(lines, QStringList({"   device Null Output by PulseAudio id kvtest_other",
                                  "   device Null Output by PulseAudio id kvtest_sink"}));
    ASSERT_TRUE(server_->unloadModule(other) && server_->removeTestSink());
    listAudioDevices();
    EXPECT_EQ(log.messages().size(), 2);
    EXPECT_TRUE(systemAudioDeviceID().isNull() && _alertSoundAlertDeviceIdentifier().isNull() &&
                soundEffectDeviceID().isNull());
    ASSERT_TRUE(server_->restoreTestSink());
}

// One silent (and really silent) sound after more than 25 s without one, put off by any sound.
TEST_F(SoundExtensionsTest, PrepareForSoundPlaysSilenceOnlyAfter25SecondsWithoutSound) {
    // The silent sound comes from the user's sound folder (the test has no bundle).
    const QString sounds = QDir::homePath() + "/.local/share/sounds";
    QDir().mkpath(sounds);
    QFile::copy(kResources + "SoundOfSilence.wav", sounds + "/SoundOfSilence.wav");
    SoundExtensionsPrivate::setClock([this] { return at(seconds_); });
    SoundExtensionsPrivate::resetSoundDate();
    setSoundLog(true);
    LogCapture log;
    ASSERT_TRUE(server_->startCapture());
    EXPECT_EQ(prepareAt(0), 1);
    EXPECT_EQ(SoundServer::peak(server_->stopCapture()), 0.0);
    EXPECT_EQ(prepareAt(25), 0);
    EXPECT_EQ(prepareAt(26), 1);
    EXPECT_EQ(SoundExtensionsPrivate::lastSoundDate(), at(26));
    const QRegularExpression silentPlay("^playAsSoundEffect: .*SoundOfSilence$");
    EXPECT_EQ(log.messages().filter(silentPlay).size(), 2);
    seconds_ = 40;
    KVSound sound(kResources + "Done.wav");
    playAndRecord(sound);
    EXPECT_EQ(prepareAt(60), 0);
    EXPECT_EQ(prepareAt(66), 1);
}

// The application's, then each folder's (not subfolders, Ogg in the theme's); a name that is
// no UTF-8 (never opened by path), a missing folder or a file gives nothing.
TEST(SoundExtensionsCatalogue, ListsTheApplicationsThenEachFoldersSoundsAndFindsThemByName) {
    const QString root = TestEnvironment::makeTempDir("catalogue");
    const QString bundlePath = TestBundle::make(root, "Sounds", {}, false);
    const QString resources = bundlePath + "/Contents/Resources";
    const QString system = root + "/system", theme = root + "/theme", user = root + "/user";
    ASSERT_TRUE(makeFiles(resources, {"Glass.wav", "Glass.aiff", "Ping.Aiff", "notes.txt"}) &&
                makeFiles(system, {"Glass.aiff", "Tink.wav", "Deep/Deep.wav", "Sub.wav/x"}) &&
                makeFiles(theme, {"bell.oga", "alarm.ogg", "Ping.AIFF"}) &&
                makeFiles(user, {"Tink.wav", "Pop.mp3", "Ping.oga", "a file"}));
    ASSERT_EQ(mkfifo(QFile::encodeName(user + "/Pipe.wav").constData(), 0644), 0);
    const int odd =
        open((QFile::encodeName(user) + "/\xff.wav").constData(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(odd, 0);
    close(odd);
    const QList<SoundExtensionsPlatform::SoundFolder> folders = {
        {system, ""}, {theme, "oga"}, {root + "/missing", ""}, {user + "/a file", ""}, {user, ""}};
    const std::optional<KVBundle> bundle = KVBundle::bundleWithPath(bundlePath);
    ASSERT_TRUE(bundle);
    // Case counts; only what follows the last dot of the last component is an extension.
    // clang-format off
    for (const auto &[path, accepted] : {std::pair{"x.tar.wav", true}, {"x.wav.txt", false},
             {"x.wav/", true}, {".wav", false}, {"a.wav/b", false}, {"Ping.Aiff", false}})
        EXPECT_EQ(isSoundFileAtPath(path), accepted) << path;
    // clang-format on

    EXPECT_EQ(SoundExtensionsPrivate::applicationSoundFiles(*bundle),
              QStringList({resources + "/Glass.aiff", resources + "/Glass.wav"}));
    // Within a folder the listing order is the system's: only the folders' is checked.
    QStringList found = SoundExtensionsPrivate::systemSoundFiles(folders);
    EXPECT_TRUE(found.first().startsWith(system) && found.last().startsWith(user));
    found.sort();
    EXPECT_EQ(found, QStringList({system + "/Glass.aiff", system + "/Sub.wav", system + "/Tink.wav",
                                  theme + "/Ping.AIFF", theme + "/bell.oga", user + "/Pipe.wav",
                                  user + "/Pop.mp3", user + "/Tink.wav"}));
    // clang-format off
    const std::pair<QString, QString> rows[] = {
        {"Glass", resources + "/Glass.aiff"}, {"Tink", system + "/Tink.wav"},
        {"Ping", theme + "/Ping.AIFF"}, {"glass", QString()}, {"alarm", QString()}, {"Deep", QString()}};
    // clang-format on
    for (const auto &[name, path] : rows)
        EXPECT_EQ(SoundExtensionsPrivate::pathOfSound(name, *bundle, folders), path)
            << qPrintable(name);
    // Playing what the catalogue lists never waits on a pipe.
    EXPECT_EQ(KVSound(user + "/Pipe.wav").duration(), 0.0);
}

// Application names keep duplicates but not the silent sound; one in two folders is listed once.
TEST(SoundExtensionsCatalogue, NamesOfTheApplicationsAndTheSystemsSounds) {
    const QString resources = KVBundle::mainBundle().resourcePath();
    const QString userSounds = qEnvironmentVariable("XDG_DATA_HOME") + "/sounds";
    const QStringList bundled = {"KVTestGlass.aiff", "KVTestGlass.wav", "SoundOfSilence.wav"};
    ASSERT_TRUE(makeFiles(resources, bundled) &&
                makeFiles(userSounds, {"KVTestPop.mp3", "bell.wav"}));
    const QStringList names = applicationSounds();
    const QString silence = pathOfSound("SoundOfSilence");
    for (const QString &file : bundled) QFile::remove(resources + "/" + file);
    EXPECT_EQ(names.filter("KVTest"), QStringList({"KVTestGlass", "KVTestGlass"}));
    EXPECT_FALSE(names.contains("SoundOfSilence"));
    EXPECT_EQ(silence, resources + "/SoundOfSilence.wav");

    const QStringList sounds = systemSounds();
    EXPECT_EQ(sounds.count("bell"), 1);
    EXPECT_TRUE(sounds.contains("KVTestPop") && std::is_sorted(sounds.begin(), sounds.end()));
    EXPECT_EQ(pathOfSound("bell"), kThemeBell);
}
