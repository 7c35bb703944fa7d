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
#include "TestEnvironment.h"

using namespace SoundExtensions;

namespace {

const QString kResources = QStringLiteral(KV_INSTALLER_APP "/Contents/Resources/");
const QString kVolumeKey = QStringLiteral("com.apple.sound.beep.volume");

KVUserDefaults systemSound() { return KVUserDefaults(QStringLiteral("com.apple.systemsound")); }

// ---- Alert volume ----

class AlertVolumeTest : public testing::Test {
protected:
    void TearDown() override { systemSound().removeObjectForKey(kVolumeKey); }

    static float volumeFor(const QVariant &stored) {
        systemSound().setObject(stored, kVolumeKey);
        return alertVolume();
    }
};

TEST_F(AlertVolumeTest, MissingSettingGivesFullVolume) {
    systemSound().removeObjectForKey(kVolumeKey);
    EXPECT_EQ(alertVolume(), 1.0f);
}

TEST_F(AlertVolumeTest, BreakpointsMapOntoQuarterSteps) {
    EXPECT_EQ(volumeFor(0.0), 0.0f);
    EXPECT_EQ(volumeFor(0.3), 0.0f);
    EXPECT_EQ(volumeFor(0.35), 0.0f);
    EXPECT_FLOAT_EQ(volumeFor(0.47), 0.25f);
    EXPECT_FLOAT_EQ(volumeFor(0.61), 0.5f);
    EXPECT_FLOAT_EQ(volumeFor(0.78), 0.75f);
    EXPECT_FLOAT_EQ(volumeFor(1.0), 1.0f);
}

TEST_F(AlertVolumeTest, BetweenBreakpointsTheVolumeIsLinear) {
    EXPECT_NEAR(volumeFor(0.41), 0.125, 1e-6);
    EXPECT_NEAR(volumeFor(0.54), 0.375, 1e-6);
    EXPECT_NEAR(volumeFor(0.695), 0.625, 1e-6);
    EXPECT_NEAR(volumeFor(0.89), 0.875, 1e-6);
}

TEST_F(AlertVolumeTest, LouderSettingsAreClampedToFullVolume) {
    EXPECT_EQ(volumeFor(1.2), 1.0f);
    EXPECT_EQ(volumeFor(40), 1.0f);
}

TEST_F(AlertVolumeTest, ValueWithoutFloatValueGivesFullVolume) {
    EXPECT_EQ(volumeFor(QStringList{"0.5", "0.6"}), 1.0f);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(QVariantMap{{"a", 0.5}}), 1.0f);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(QByteArray("0.5")), 1.0f);
}

TEST_F(AlertVolumeTest, TextIsReadForItsLeadingNumber) {
    EXPECT_EQ(volumeFor("loud"), 0.0f);  // a text without a number reads as 0
    EXPECT_FLOAT_EQ(volumeFor(" 0.61 dB"), 0.5f);
}

TEST_F(AlertVolumeTest, TypedNumbersAreReadToo) {
    EXPECT_FLOAT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(0.61), 0.5f);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(0), 0.0f);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(true), 1.0f);
}

// ---- Playing as a sound effect ----

// Every case here plays through the test's sound server, which has to run
// before Qt is first asked for audio devices.
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

    // Plays the sound with playAsSoundEffect and records the test sink meanwhile.
    QVector<float> playAndRecord(KVSound &sound) {
        if (!server_->startCapture()) {
            ADD_FAILURE() << "cannot record the test sink";
            return {};
        }
        playAsSoundEffect(sound);
        EXPECT_TRUE(QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000));
        return server_->stopCapture();
    }

    SoundServer *server_ = nullptr;
};

TEST_F(SoundEffectTest, DoneSoundIsHeardOnceAtTheAlertVolume) {
    KVSound full(kResources + "Done.wav");
    full.setVolume(alertVolume());
    const QVector<float> loud = playAndRecord(full);
    EXPECT_EQ(SoundServer::countSounds(loud), 1);
    EXPECT_NEAR(SoundServer::peak(loud), 0.5, 0.05);

    systemSound().setObject(0.61, kVolumeKey);
    KVSound half(kResources + "Done.wav");
    half.setVolume(alertVolume());
    ASSERT_FLOAT_EQ(half.volume(), 0.5f);
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

TEST_F(SoundEffectTest, DefaultDeviceIsTheSoundServersDefaultSink) {
    EXPECT_EQ(systemAudioDeviceID(), SoundServer::kSinkName);
    EXPECT_EQ(_alertSoundAlertDeviceIdentifier(), SoundServer::kSinkName);
    EXPECT_EQ(soundEffectDeviceID(), SoundServer::kSinkName);
}

TEST_F(SoundEffectTest, WithoutSoundLogNothingIsLogged) {
    setSoundLog(false);
    KVSound sound(kResources + "Done.wav");
    LogCapture log;
    playAndRecord(sound);
    SoundExtensionsPrivate::overrideSystemAudioDeviceID(QStringLiteral("kvtest_no_such_device"));
    playAndRecord(sound);
    EXPECT_EQ(log.text(), "");
}

TEST_F(SoundEffectTest, SoundLogTracesDevicesAndPlay) {
    setSoundLog(true);
    KVSound sound(kResources + "Done.wav");
    LogCapture log;
    const QVector<float> samples = playAndRecord(sound);
    EXPECT_EQ(log.messages(),
              QStringList({"playAsSoundEffect: " + sound.description(),
                           "   device Null Output by PulseAudio id kvtest_sink",
                           "+SL: soundEffectID=kvtest_sink",
                           "+SL: setPlaybackDeviceIdentifier:kvtest_sink",
                           "+SL: play self (" + sound.description() + ")"}));
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_EQ(sound.playbackDeviceIdentifier(), "kvtest_sink");
}

TEST_F(SoundEffectTest, RefusedDeviceFallsBackToTheDefaultAndStillPlays) {
    setSoundLog(true);
    SoundExtensionsPrivate::overrideSystemAudioDeviceID(QStringLiteral("kvtest_no_such_device"));
    KVSound sound(kResources + "Done.wav");
    LogCapture log;
    const QVector<float> samples = playAndRecord(sound);
    const QStringList lines = log.messages();
    ASSERT_EQ(lines.size(), 6) << log.text().toStdString();
    EXPECT_EQ(lines[2], "+SL: soundEffectID=kvtest_no_such_device");
    EXPECT_EQ(lines[3], "+SL: setPlaybackDeviceIdentifier:kvtest_no_such_device");
    EXPECT_TRUE(lines[4].startsWith("+SL: exception ")) << lines[4].toStdString();
    EXPECT_TRUE(lines[4].contains("kvtest_no_such_device"));
    EXPECT_EQ(lines[5], "+SL: play self (" + sound.description() + ")");
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_TRUE(sound.playbackDeviceIdentifier().isNull());
}

TEST_F(SoundEffectTest, WithoutDefaultDeviceTheSoundPlaysOnItsOwnDefault) {
    setSoundLog(true);
    SoundExtensionsPrivate::overrideSystemAudioDeviceID(QString());
    KVSound sound(kResources + "Done.wav");
    LogCapture log;
    const QVector<float> samples = playAndRecord(sound);
    EXPECT_EQ(log.messages(),
              QStringList({"playAsSoundEffect: " + sound.description(),
                           "   device Null Output by PulseAudio id kvtest_sink",
                           "+SL: soundEffectID=(null)",
                           "+SL: play self (" + sound.description() + ")"}));
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

    // Without any output, and back.
    QString modules;
    ASSERT_TRUE(server_->pactl({"list", "short", "modules"}, &modules));
    const QRegularExpressionMatch sink =
        QRegularExpression("^(\\d+)\\s+module-null-sink\\s+sink_name=kvtest_sink",
                           QRegularExpression::MultilineOption)
            .match(modules);
    ASSERT_TRUE(sink.hasMatch()) << modules.toStdString();
    ASSERT_TRUE(server_->unloadModule(sink.captured(1).toInt()));
    ASSERT_TRUE(SoundServer::waitForQtOutput(SoundServer::kSinkName, false));
    {
        LogCapture log;
        listAudioDevices();
        EXPECT_EQ(log.text(), "");
        EXPECT_TRUE(systemAudioDeviceID().isNull());
        EXPECT_TRUE(_alertSoundAlertDeviceIdentifier().isNull());
    }
    ASSERT_GE(server_->addNullSink(SoundServer::kSinkName), 0);
    ASSERT_TRUE(server_->pactl({"set-default-sink", SoundServer::kSinkName}));
    ASSERT_TRUE(SoundServer::waitForQtOutput(SoundServer::kSinkName));
}

// ---- Keeping the output awake ----

// The sound date follows a clock the test sets; the silent sound is found in
// the user's sound folder (the test program has no bundle of its own).
class PrepareForSoundTest : public SoundEffectTest {
protected:
    void SetUp() override {
        SoundEffectTest::SetUp();
        const QString folder = QDir::homePath() + "/.local/share/sounds";
        QDir().mkpath(folder);
        QFile::copy(kResources + "SoundOfSilence.wav", folder + "/SoundOfSilence.wav");
        now_ = QDateTime(QDate(2026, 11, 21), QTime(9, 15), Qt::UTC).toMSecsSinceEpoch();
        SoundExtensionsPrivate::setClock(
            [this] { return QDateTime::fromMSecsSinceEpoch(now_, Qt::UTC); });
        SoundExtensionsPrivate::resetSoundDate();
        setSoundLog(true);
    }
    void TearDown() override {
        SoundExtensionsPrivate::waitForSilentSoundThreads();
        SoundExtensionsPrivate::setClock({});
        SoundExtensionsPrivate::resetSoundDate();
        SoundEffectTest::TearDown();
    }

    // Calls prepareForSound at the clock's time plus the seconds and lets the
    // silent sound play; how many silent sounds it started.
    int prepareAt(int seconds) {
        now_ = start() + seconds * 1000LL;
        const int before = SoundExtensionsPrivate::silentSoundThreadsStarted();
        prepareForSound();
        SoundExtensionsPrivate::waitForSilentSoundThreads();
        QTest::qWait(700);  // the main thread plays it
        return SoundExtensionsPrivate::silentSoundThreadsStarted() - before;
    }
    static qint64 start() {
        return QDateTime(QDate(2026, 11, 21), QTime(9, 15), Qt::UTC).toMSecsSinceEpoch();
    }
    QDateTime at(int seconds) const {
        return QDateTime::fromMSecsSinceEpoch(start() + seconds * 1000LL, Qt::UTC);
    }
    static int silentPlays(const LogCapture &log) {
        return int(log.messages().filter(QRegularExpression("^playAsSoundEffect: .*SoundOfSilence$")).size());
    }

    std::atomic<qint64> now_{0};
};

TEST_F(PrepareForSoundTest, FirstCallPlaysTheSilentSoundAndNotesTheDate) {
    LogCapture log;
    EXPECT_EQ(prepareAt(0), 1);
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
    now_ = start();
    setSoundDateNow();
    EXPECT_EQ(prepareAt(20), 0);
    KVSound sound(kResources + "Done.wav");
    now_ = start() + 30000;
    playAsSoundEffect(sound);
    EXPECT_EQ(prepareAt(50), 0);
    EXPECT_EQ(prepareAt(56), 1);
}

TEST_F(PrepareForSoundTest, SilentSoundIsCapturedAsSilence) {
    ASSERT_TRUE(server_->startCapture());
    EXPECT_EQ(prepareAt(0), 1);
    const QVector<float> samples = server_->stopCapture();
    EXPECT_EQ(SoundServer::peak(samples), 0.0);
}

}  // namespace
