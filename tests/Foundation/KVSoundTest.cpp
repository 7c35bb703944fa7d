// Sounds found on disk and played on the test's own sound server, recorded at the sink.
#include <gtest/gtest.h>

#include <QFile>
#include <QTest>
#include <cmath>
#include <thread>

#include "KVBundle.h"
#include "KVSound.h"
#include "SoundServer.h"
#include "TestEnvironment.h"

namespace {

const QString kDoneSound = QStringLiteral(KV_INSTALLER_APP "/Contents/Resources/Done.wav");

// A mono 16-bit 44.1 kHz WAV of silence, with an odd-sized chunk before the data if asked.
QByteArray wave(double seconds, bool extraChunk = false) {
    const auto le = [](quint32 value, int count) {
        QByteArray bytes;
        for (int i = 0; i < count; ++i) bytes += char(value >> (8 * i));
        return bytes;
    };
    const QByteArray data(2 * int(seconds * 44100), '\0');
    QByteArray chunks = "fmt " + le(16, 4) + le(1, 2) + le(1, 2) + le(44100, 4) + le(88200, 4) +
                        le(2, 2) + le(16, 2);
    if (extraChunk) chunks += QByteArray("LIST\5\0\0\0INFO?\0", 14);
    chunks += "data" + le(data.size(), 4);
    return "RIFF" + le(4 + chunks.size() + data.size(), 4) + "WAVE" + chunks + data;
}

// Found sounds are kept for the process's life, so the names are unique.
TEST(KVSoundFileTest, FindsSoundsByNameAndReadsTheirDuration) {
    const QString bundled = KVBundle::mainBundle().resourcePath() + "/KVTestChime.WAV";
    const QString sounds = qEnvironmentVariable("XDG_DATA_HOME") + "/sounds";
    const std::pair<QString, QByteArray> files[] = {
        {bundled, wave(0.2)},
        {sounds + "/KVTestChime.wav", wave(0.4)},
        {KVBundle::mainBundle().resourcePath() + "/KVTestFake.wav", "not a sound"},
        {sounds + "/KVTestFake.wav", "RIFF....WAVEjunk"},
        {sounds + "/theme/stereo/KVTestFake.wav", wave(0.5, true)}};
    for (const auto &[path, bytes] : files) ASSERT_TRUE(TestEnvironment::writeFile(path, bytes));
    const std::shared_ptr<KVSound> chime = KVSound::soundNamed("KVTestChime");
    const std::shared_ptr<KVSound> fake = KVSound::soundNamed("KVTestFake");
    QFile::remove(files[0].first);
    QFile::remove(files[2].first);
    // A bundled WAV of any extension wins; sound folders' subfolders count, non-WAVs not.
    ASSERT_TRUE(chime && fake);
    EXPECT_EQ(chime->path(), bundled);
    EXPECT_NEAR(chime->duration(), 0.2, 0.0001);
    EXPECT_EQ(fake->path(), files[4].first);
    EXPECT_NEAR(fake->duration(), 0.5, 0.0001);
    EXPECT_EQ(KVSound::soundNamed("KVTestChime"), chime);
    EXPECT_EQ(KVSound::soundNamed("KVTestNoSuchSound"), nullptr);
    EXPECT_EQ(KVSound::soundNamed(QString()), nullptr);
    for (const QString &path : {files[3].first, sounds + "/missing.wav"}) {
        KVSound sound(path);
        EXPECT_EQ(sound.duration(), 0.0);
        EXPECT_FALSE(sound.play());
    }
}

class KVSoundPlaybackTest : public testing::Test {
protected:
    void SetUp() override {
        QString error;
        server = SoundServer::shared(&error);
        ASSERT_NE(server, nullptr) << "no sound server for the test: " << qPrintable(error);
    }
    static bool waitUntilSilent(const KVSound &sound) {
        return QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000);
    }
    // Seconds from the first to the last sample louder than -40 dBFS.
    static double audibleSeconds(const QVector<float> &samples) {
        qsizetype first = -1, last = -1;
        for (qsizetype i = 0; i < samples.size(); ++i) {
            if (std::fabs(samples[i]) < 0.01f) continue;
            if (first < 0) first = i;
            last = i;
        }
        return first < 0 ? 0.0 : double(last - first) / 44100;
    }
    SoundServer *server = nullptr;
};

// Heard once, at the file's own level; a playing sound does not start again.
// Played from a thread without an event loop (the main thread plays it) by an
// owner that lets go at once, it still plays to its end.
TEST_F(KVSoundPlaybackTest, PlaysOnceToTheEndFromAnyThread) {
    KVSound sound(kDoneSound);
    EXPECT_NEAR(sound.duration(), 0.6, 0.001);
    ASSERT_TRUE(server->startCapture());
    ASSERT_TRUE(sound.play());
    EXPECT_TRUE(sound.isPlaying());
    EXPECT_FALSE(sound.play());
    ASSERT_TRUE(waitUntilSilent(sound));
    QVector<float> samples = server->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_NEAR(SoundServer::peak(samples), 0.5, 0.05);  // the chime peaks at -6 dBFS

    bool started = false;
    ASSERT_TRUE(server->startCapture());
    std::thread([&] { started = std::make_shared<KVSound>(kDoneSound)->play(); }).join();
    ASSERT_TRUE(started);
    QTest::qWait(1500);
    samples = server->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_GT(audibleSeconds(samples), 0.4);
}

// The chosen output alone hears the sound; an unknown one is refused with a
// reason and changes nothing; an empty identifier means the default again.
TEST_F(KVSoundPlaybackTest, PlaysOnTheChosenDeviceAndRefusesUnknownOnes) {
    const int module = server->addNullSink("kvtest_other");
    ASSERT_TRUE(module >= 0 && SoundServer::waitForQtOutput("kvtest_other"));
    KVSound sound(kDoneSound);
    EXPECT_TRUE(sound.setPlaybackDeviceIdentifier("kvtest_other"));
    // The reason's text is checked in the sound-effect trace.
    EXPECT_FALSE(sound.setPlaybackDeviceIdentifier("kvtest_no_such_device"));
    EXPECT_EQ(sound.playbackDeviceIdentifier(), "kvtest_other");
    ASSERT_TRUE(server->startCapture("kvtest_other") && server->startCapture());
    ASSERT_TRUE(sound.play());
    ASSERT_TRUE(waitUntilSilent(sound));
    EXPECT_EQ(SoundServer::countSounds(server->stopCapture("kvtest_other")), 1);
    EXPECT_EQ(SoundServer::countSounds(server->stopCapture()), 0);
    EXPECT_TRUE(sound.setPlaybackDeviceIdentifier(""));
    EXPECT_TRUE(sound.playbackDeviceIdentifier().isNull());
    EXPECT_TRUE(server->unloadModule(module));
    EXPECT_TRUE(SoundServer::waitForQtOutput("kvtest_other", false));
}

}  // namespace
