// Sounds played on the test's own sound server, recorded at the sink.
#include <gtest/gtest.h>

#include <QTest>

#include "KVSound.h"
#include "SoundServer.h"

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
