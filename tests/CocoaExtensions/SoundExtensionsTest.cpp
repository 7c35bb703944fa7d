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
QDateTime at(int seconds) {
    return QDateTime(QDate(2026, 11, 21), QTime(9, 15), Qt::UTC).addSecs(seconds);
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
    // Plays the sound with playAsSoundEffect, recording the test sink meanwhile.
    QVector<float> playAndRecord(KVSound &sound) {
        EXPECT_TRUE(server_->startCapture()) << "cannot record the test sink";
        playAsSoundEffect(sound);
        EXPECT_TRUE(QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000));
        return server_->stopCapture();
    }

    // How many silent sounds prepareForSound starts that many seconds after
    // the start; each is played to its end.
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

// Each stretch between the stored breakpoints maps onto a quarter of the
// volume; what has no number means full volume, a text reads its number.
TEST(SoundExtensionsAlertVolume, StoredSettingMapsPiecewiseOntoQuarterSteps) {
    // clang-format off
    const std::pair<QVariant, float> rows[] = {
        {QVariant(), 1.0f}, {0.35, 0.0f}, {0.41, 0.125f}, {0.54, 0.375f}, {0.695, 0.625f},
        {0.78, 0.75f}, {0.89, 0.875f}, {40.0, 1.0f}, {"loud", 0.0f}, {" 0.61 dB", 0.5f},
        {QStringList{"0.5"}, 1.0f}};
    // clang-format on
    for (const auto &[stored, expected] : rows) {
        systemSound().removeObjectForKey(kVolumeKey);
        if (stored.isValid()) systemSound().setObject(stored, kVolumeKey);
        EXPECT_NEAR(alertVolume(), expected, 1e-6) << qPrintable(stored.toString());
    }
    systemSound().removeObjectForKey(kVolumeKey);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(QVariantMap{{"a", 0.5}}), 1.0f);
    EXPECT_EQ(SoundExtensionsPrivate::alertVolumeForStoredValue(QByteArray("0.5")), 1.0f);
}

// Heard once, at the alert volume, on any device: one the sound refuses makes
// it fall back to the default device, and no device leaves the sound's own
// choice alone. The trace lines are fixed byte for byte.
TEST_F(SoundExtensionsTest, DoneSoundIsHeardOnceAtTheAlertVolumeAndTraced) {
    EXPECT_EQ(systemAudioDeviceID(), SoundServer::kSinkName);
    EXPECT_EQ(_alertSoundAlertDeviceIdentifier(), SoundServer::kSinkName);
    EXPECT_EQ(soundEffectDeviceID(), SoundServer::kSinkName);
    const QString refused = "kvtest_no_such_device";
    // What systemAudioDeviceID answers (nothing: the real answer), the device
    // the sound ends up with after choosing the test sink itself, and the
    // trace between the first and last line.
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
    double fullPeak = 0.0;
    for (const auto &[device, used, trace] : rows) {
        SoundExtensionsPrivate::overrideSystemAudioDeviceID(device);
        KVSound sound(kResources + "Done.wav");
        sound.setVolume(alertVolume());
        sound.setPlaybackDeviceIdentifier(SoundServer::kSinkName);
        LogCapture log;
        const QVector<float> samples = playAndRecord(sound);
        EXPECT_EQ(SoundServer::countSounds(samples), 1);
        EXPECT_NEAR(SoundServer::peak(samples), 0.5, 0.05);
        fullPeak = SoundServer::peak(samples);
        EXPECT_EQ(log.messages(), QStringList("playAsSoundEffect: " + sound.description())
                                      << "   device Null Output by PulseAudio id kvtest_sink"
                                      << trace << "+SL: play self (" + sound.description() + ")");
        EXPECT_EQ(sound.playbackDeviceIdentifier(), used);
    }
    // Without the log nothing is written, on the fallback path too.
    setSoundLog(false);
    SoundExtensionsPrivate::overrideSystemAudioDeviceID(refused);
    systemSound().setObject(0.61, kVolumeKey);
    KVSound half(kResources + "Done.wav");
    half.setVolume(alertVolume());
    LogCapture log;
    const QVector<float> soft = playAndRecord(half);
    EXPECT_EQ(SoundServer::countSounds(soft), 1);
    EXPECT_NEAR(SoundServer::peak(soft) / fullPeak, 0.5, 0.1);
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

// One silent (and really silent) sound after more than 25 seconds without one.
TEST_F(SoundExtensionsTest, PrepareForSoundPlaysSilenceOnlyAfter25SecondsWithoutSound) {
    // The silent sound comes from the user's sound folder (the test program
    // has no bundle of its own); the sound date follows the test's clock.
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
    EXPECT_EQ(SoundExtensionsPrivate::lastSoundDate(), at(0));
    EXPECT_EQ(prepareAt(10), 0);
    EXPECT_EQ(prepareAt(25), 0);
    EXPECT_EQ(prepareAt(26), 1);
    EXPECT_EQ(SoundExtensionsPrivate::lastSoundDate(), at(26));
    const QRegularExpression silentPlay("^playAsSoundEffect: .*SoundOfSilence$");
    EXPECT_EQ(log.messages().filter(silentPlay).size(), 2);
    // Any sound played puts the silent one off.
    seconds_ = 40;
    KVSound sound(kResources + "Done.wav");
    playAsSoundEffect(sound);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000));
    EXPECT_EQ(prepareAt(60), 0);
    EXPECT_EQ(prepareAt(66), 1);
}
