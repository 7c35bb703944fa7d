#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTest>
#include <atomic>

#include "KVUserDefaults.h"
#include "LogCapture.h"
#include "SoundExtensions.h"
#include "SoundExtensions_p.h"
#include "SoundServer.h"

using namespace SoundExtensions;

namespace {

const QString kResources = QStringLiteral(KV_INSTALLER_APP "/Contents/Resources/");
const QString kVolumeKey = QStringLiteral("com.apple.sound.beep.volume");

KVUserDefaults systemSound() { return KVUserDefaults(QStringLiteral("com.apple.systemsound")); }

class AlertVolumeTest : public testing::Test {
protected:
    void TearDown() override { systemSound().removeObjectForKey(kVolumeKey); }

    static float volumeFor(const QVariant &stored) {
        systemSound().setObject(stored, kVolumeKey);
        return alertVolume();
    }
};

// Every case here plays through the test's sound server.
class SoundEffectTest : public testing::Test {
protected:
    void SetUp() override {
        QString error;
        server_ = SoundServer::shared(&error);
        ASSERT_NE(server_, nullptr) << "no sound server for the test: " << error.toStdString();
    }
    void TearDown() override {
        KVUserDefaults::setArgumentDomain({});
        systemSound().removeObjectForKey(kVolumeKey);
        SoundExtensionsPrivate::overrideSystemAudioDeviceID(std::nullopt);
    }

    static void setSoundLog(bool on) {
        KVUserDefaults::setArgumentDomain({"test", "-soundLog", on ? "YES" : "NO"});
    }

    // Plays the sound with playAsSoundEffect, recording the test sink meanwhile.
    QVector<float> playAndRecord(KVSound &sound) {
        if (!server_->startCapture()) {
            ADD_FAILURE() << "cannot record the test sink";
            return {};
        }
        playAsSoundEffect(sound);
        EXPECT_TRUE(QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000));
        return server_->stopCapture();
    }
    static QStringList trace(const KVSound &sound, const QString &deviceID, bool deviceSet) {
        QStringList lines{"playAsSoundEffect: " + sound.description(),
                          "   device Null Output by PulseAudio id kvtest_sink",
                          "+SL: soundEffectID=" + deviceID};
        if (deviceSet) lines << "+SL: setPlaybackDeviceIdentifier:" + deviceID;
        return lines << "+SL: play self (" + sound.description() + ")";
    }

    SoundServer *server_ = nullptr;
};

}  // namespace

// ---- Alert volume ----

TEST_F(AlertVolumeTest, MissingSettingGivesFullVolume) {
    systemSound().removeObjectForKey(kVolumeKey);
    EXPECT_EQ(alertVolume(), 1.0f);
}

TEST_F(AlertVolumeTest, StoredVolumeMapsPiecewiseOntoQuarterSteps) {
    const std::pair<double, float> table[] = {
        {0.0, 0.0f},    {0.3, 0.0f},  {0.35, 0.0f},    {0.41, 0.125f}, {0.47, 0.25f},
        {0.54, 0.375f}, {0.61, 0.5f}, {0.695, 0.625f}, {0.78, 0.75f},  {0.89, 0.875f},
        {1.0, 1.0f},    {1.2, 1.0f},  {40.0, 1.0f}};
    for (auto [stored, expected] : table) EXPECT_NEAR(volumeFor(stored), expected, 1e-6) << stored;
}

TEST_F(AlertVolumeTest, ValueWithoutFloatValueGivesFullVolumeWhileTextReadsItsNumber) {
    EXPECT_EQ(volumeFor(QStringList{"0.5", "0.6"}), 1.0f);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(QVariantMap{{"a", 0.5}}), 1.0f);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(QByteArray("0.5")), 1.0f);

    EXPECT_EQ(volumeFor("loud"), 0.0f);  // a text without a number reads as 0
    EXPECT_FLOAT_EQ(volumeFor(" 0.61 dB"), 0.5f);
    EXPECT_FLOAT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(0.61), 0.5f);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(true), 1.0f);
}

// ---- Playing as a sound effect ----

TEST_F(SoundEffectTest, DoneSoundIsHeardOnceAtTheAlertVolume) {
    KVSound full(kResources + "Done.wav");
    full.setVolume(alertVolume());
    const QVector<float> loud = playAndRecord(full);
    EXPECT_EQ(SoundServer::countSounds(loud), 1);
    EXPECT_NEAR(SoundServer::peak(loud), 0.5, 0.05);

    systemSound().setObject(0.61, kVolumeKey);
    KVSound half(kResources + "Done.wav");
    half.setVolume(alertVolume());
    const QVector<float> soft = playAndRecord(half);
    EXPECT_EQ(SoundServer::countSounds(soft), 1);
    EXPECT_NEAR(SoundServer::peak(soft) / SoundServer::peak(loud), 0.5, 0.1);
}

TEST_F(SoundEffectTest, SoundOfSilenceIsSilent) {
    KVSound silence(kResources + "SoundOfSilence.wav");
    EXPECT_NEAR(silence.duration(), 0.5, 0.001);
    const QVector<float> samples = playAndRecord(silence);
    EXPECT_GT(samples.size(), 44100 / 2);
    EXPECT_EQ(SoundServer::peak(samples), 0.0);
}

TEST_F(SoundEffectTest, WithoutSoundLogNothingIsLogged) {
    setSoundLog(false);
    KVSound sound(kResources + "Done.wav");
    LogCapture log;
    playAndRecord(sound);
    SoundExtensionsPrivate::overrideSystemAudioDeviceID(QStringLiteral("kvtest_no_such_device"));
    EXPECT_EQ(SoundServer::countSounds(playAndRecord(sound)), 1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(SoundEffectTest, SoundLogTracesDevicesAndPlayOnTheDefaultDevice) {
    EXPECT_EQ(systemAudioDeviceID(), SoundServer::kSinkName);
    EXPECT_EQ(_alertSoundAlertDeviceIdentifier(), SoundServer::kSinkName);
    EXPECT_EQ(soundEffectDeviceID(), SoundServer::kSinkName);

    setSoundLog(true);
    KVSound sound(kResources + "Done.wav");
    LogCapture log;
    const QVector<float> samples = playAndRecord(sound);
    EXPECT_EQ(log.messages(), trace(sound, "kvtest_sink", true));
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_EQ(sound.playbackDeviceIdentifier(), "kvtest_sink");
}

TEST_F(SoundEffectTest, RefusedDeviceFallsBackToTheDefaultAndStillPlays) {
    setSoundLog(true);
    SoundExtensionsPrivate::overrideSystemAudioDeviceID(QStringLiteral("kvtest_no_such_device"));
    KVSound sound(kResources + "Done.wav");
    LogCapture log;
    const QVector<float> samples = playAndRecord(sound);
    QStringList lines = log.messages();
    ASSERT_EQ(lines.size(), 6) << log.text().toStdString();
    const QString exception = lines.takeAt(4);
    EXPECT_TRUE(exception.startsWith("+SL: exception ")) << exception.toStdString();
    EXPECT_TRUE(exception.contains("kvtest_no_such_device"));
    EXPECT_EQ(lines, trace(sound, "kvtest_no_such_device", true));
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_TRUE(sound.playbackDeviceIdentifier().isNull());
}

TEST_F(SoundEffectTest, WithoutDefaultDeviceTheSoundPlaysOnItsOwnDefault) {
    setSoundLog(true);
    SoundExtensionsPrivate::overrideSystemAudioDeviceID(QString());
    KVSound sound(kResources + "Done.wav");
    LogCapture log;
    const QVector<float> samples = playAndRecord(sound);
    EXPECT_EQ(log.messages(), trace(sound, "(null)", false));
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
}

TEST_F(SoundEffectTest, ListsEveryOutputDeviceAndNothingWithoutDevices) {
    const int other = server_->addNullSink("kvtest_other");
    ASSERT_GE(other, 0);
    ASSERT_TRUE(SoundServer::waitForQtOutput("kvtest_other"));
    {
        LogCapture log;
        listAudioDevices();
        QStringList lines = log.messages();
        lines.sort();
        EXPECT_EQ(lines, QStringList({"   device Null Output by PulseAudio id kvtest_other",
                                      "   device Null Output by PulseAudio id kvtest_sink"}));
    }
    ASSERT_TRUE(server_->unloadModule(other));

    ASSERT_TRUE(server_->removeTestSink());
    {
        LogCapture log;
        listAudioDevices();
        EXPECT_EQ(log.text(), "");
        EXPECT_TRUE(systemAudioDeviceID().isNull());
        EXPECT_TRUE(_alertSoundAlertDeviceIdentifier().isNull());
        EXPECT_TRUE(soundEffectDeviceID().isNull());
    }
    ASSERT_TRUE(server_->restoreTestSink());
}

// ---- Keeping the output awake ----

namespace {

// The sound date follows a clock the test sets; the silent sound is found in
// the user's sound folder (the test program has no bundle of its own). The
// trace counts the silent sounds played.
class PrepareForSoundTest : public SoundEffectTest {
protected:
    void SetUp() override {
        SoundEffectTest::SetUp();
        const QString folder = QDir::homePath() + "/.local/share/sounds";
        QDir().mkpath(folder);
        QFile::copy(kResources + "SoundOfSilence.wav", folder + "/SoundOfSilence.wav");
        SoundExtensionsPrivate::setClock([this] { return at(seconds_); });
        SoundExtensionsPrivate::resetSoundDate();
        setSoundLog(true);
    }
    void TearDown() override {
        SoundExtensionsPrivate::waitForSilentSoundThreads();
        SoundExtensionsPrivate::setClock({});
        SoundExtensionsPrivate::resetSoundDate();
        SoundEffectTest::TearDown();
    }

    static QDateTime at(int seconds) {
        return QDateTime(QDate(2026, 11, 21), QTime(9, 15), Qt::UTC).addSecs(seconds);
    }
    // Calls prepareForSound at that many seconds after the start and lets a
    // silent sound play; how many silent sounds it started.
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
    static qsizetype silentPlays(const LogCapture &log) {
        return log.messages()
            .filter(QRegularExpression("^playAsSoundEffect: .*SoundOfSilence$"))
            .size();
    }

    std::atomic<int> seconds_{0};
};

}  // namespace

TEST_F(PrepareForSoundTest, FirstCallPlaysTheSilentSoundAndNotesTheDate) {
    LogCapture log;
    ASSERT_TRUE(server_->startCapture());
    EXPECT_EQ(prepareAt(0), 1);
    EXPECT_EQ(SoundServer::peak(server_->stopCapture()), 0.0);  // and silent
    EXPECT_EQ(SoundExtensionsPrivate::lastSoundDate(), at(0));
    EXPECT_EQ(silentPlays(log), 1);
}

TEST_F(PrepareForSoundTest, NoSecondSilentSoundWithin25Seconds) {
    LogCapture log;
    EXPECT_EQ(prepareAt(0), 1);
    EXPECT_EQ(prepareAt(10), 0);
    EXPECT_EQ(prepareAt(25), 0);
    EXPECT_EQ(silentPlays(log), 1);
}

TEST_F(PrepareForSoundTest, AnotherSilentSoundAfter25Seconds) {
    LogCapture log;
    EXPECT_EQ(prepareAt(0), 1);
    EXPECT_EQ(prepareAt(10), 0);
    EXPECT_EQ(prepareAt(26), 1);
    EXPECT_EQ(SoundExtensionsPrivate::lastSoundDate(), at(26));
    EXPECT_EQ(silentPlays(log), 2);
}

TEST_F(PrepareForSoundTest, AnyPlayedSoundPutsTheSilentSoundOff) {
    setSoundDateNow();
    EXPECT_EQ(prepareAt(20), 0);
    seconds_ = 30;
    KVSound sound(kResources + "Done.wav");
    playAsSoundEffect(sound);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000));
    EXPECT_EQ(prepareAt(50), 0);
    EXPECT_EQ(prepareAt(56), 1);
}
