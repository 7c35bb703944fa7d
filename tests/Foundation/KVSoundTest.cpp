// Sounds played on the test's own sound server, recorded at the sink.
#include <gtest/gtest.h>

#include <QTest>

#include "FifoWatch.h"
#include "KVSound.h"
#include "SoundServer.h"
#include "TestEnvironment.h"

// Heard once, at the file's own level (the chime peaks at -6 dBFS); a playing
// sound does not start again.
TEST(KVSoundPlaybackTest, PlaysOnceAtTheFilesOwnLevel) {
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
}

// A cut file gives what decodes before the cut; junk, an empty file and a FIFO
// are no sound, and nothing waits for the FIFO's writer.
TEST(KVSoundFileTest, DamagedFilesGiveWhatDecodesAndJunkIsNoSound) {
    QFile whole("/usr/share/sounds/freedesktop/stereo/complete.oga");
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    const QString folder = TestEnvironment::makeTempDir("sound");
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/cut.oga", whole.read(whole.size() / 2)));
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/junk.oga", "OggS" + QByteArray(5000, 0x7f)));
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/empty.wav", ""));
    const double cut = KVSound(folder + "/cut.oga").duration();
    EXPECT_TRUE(cut > 0 && cut < KVSound(whole.fileName()).duration()) << cut;
    const FifoWatch fifo(folder + "/fifo.wav");
    for (const char *name : {"/junk.oga", "/empty.wav", "/fifo.wav"}) {
        KVSound junk(folder + name);
        EXPECT_FALSE(junk.duration() > 0 || junk.play()) << name;
    }
    EXPECT_TRUE(fifo.made() && !fifo.readerWaited());
}
