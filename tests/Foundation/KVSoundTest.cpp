// Sounds played on the test's own sound server, recorded at the sink.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFile>
#include <QTest>
#include <algorithm>
#include <thread>

#include "KVSound.h"
#include "SoundServer.h"
#include "TestEnvironment.h"

// Heard once, at the file's own level (the chime peaks at -6 dBFS); a playing
// sound does not start again. Played from a thread without an event loop by
// an owner that lets go at once, it still plays to its end.
TEST(KVSoundPlaybackTest, PlaysOnceToTheEndFromAnyThread) {
    QString error;
    SoundServer *server = SoundServer::shared(&error);
    ASSERT_NE(server, nullptr) << "no sound server for the test: " << qPrintable(error);
    const QString done = KV_INSTALLER_APP "/Contents/Resources/Done.wav";
    KVSound sound(done);
    ASSERT_TRUE(server->startCapture() && sound.play());
    EXPECT_FALSE(sound.play());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000));
    QVector<float> samples = server->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_NEAR(SoundServer::peak(samples), 0.5, 0.05);
    bool started = false;
    ASSERT_TRUE(server->startCapture());
    std::thread([&] { started = std::make_shared<KVSound>(done)->play(); }).join();
    ASSERT_TRUE(started);
    QTest::qWait(1500);
    samples = server->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    // All of the chime, not a cut-off start: it sounds for more than 0.4 s.
    const auto loud = [](float s) { return std::abs(s) >= 0.01f; };
    const auto first = std::find_if(samples.begin(), samples.end(), loud);
    const auto last = std::find_if(samples.rbegin(), samples.rend(), loud);
    EXPECT_GT(double(samples.rend() - last - (first - samples.begin())) / 44100, 0.4);
}

// A cut Ogg file plays what decodes before the cut; junk that only starts
// like Ogg, an empty file and a FIFO are no sound and never block.
TEST(KVSoundFileTest, DamagedFilesGiveWhatDecodesAndJunkIsNoSound) {
    const QString complete = "/usr/share/sounds/freedesktop/stereo/complete.oga";
    QFile original(complete);
    ASSERT_TRUE(original.open(QIODevice::ReadOnly));
    const QString folder = TestEnvironment::makeTempDir("ogg");
    ASSERT_TRUE(
        TestEnvironment::writeFile(folder + "/cut.oga", original.read(original.size() / 2)));
    KVSound cut(folder + "/cut.oga");
    EXPECT_GT(cut.duration(), 0.0);
    EXPECT_LT(cut.duration(), KVSound(complete).duration());
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/junk.oga", "OggS" + QByteArray(5000, 0x7f)));
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/empty.wav", ""));
    ASSERT_EQ(mkfifo(QFile::encodeName(folder + "/fifo.wav").constData(), 0644), 0);
    for (const char *name : {"/junk.oga", "/empty.wav", "/fifo.wav"}) {
        KVSound junk(folder + name);
        EXPECT_EQ(junk.duration(), 0.0) << name;
        EXPECT_FALSE(junk.play()) << name;
    }
}
