#include <gtest/gtest.h>

#include <QDir>
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

void appendLittleEndian(QByteArray &bytes, quint32 value, int count) {
    for (int i = 0; i < count; ++i) bytes.append(char((value >> (8 * i)) & 0xff));
}

// A mono 16-bit 44.1 kHz WAV file of a 440 Hz tone, with an odd-sized chunk
// before the data when asked, as many writers put one there.
QByteArray wave(double seconds, bool extraChunk = false) {
    QByteArray data;
    for (int i = 0; i < int(seconds * 44100); ++i)
        appendLittleEndian(data, quint16(qint16(8000 * std::sin(2 * M_PI * 440 * i / 44100))), 2);
    QByteArray chunks = "fmt ";
    for (auto [value, size] :
         {std::pair{16u, 4}, {1u, 2}, {1u, 2}, {44100u, 4}, {88200u, 4}, {2u, 2}, {16u, 2}})
        appendLittleEndian(chunks, value, size);
    if (extraChunk) chunks += QByteArray("LIST\5\0\0\0INFO?\0", 14);
    chunks += "data";
    appendLittleEndian(chunks, quint32(data.size()), 4);
    QByteArray file = "RIFF";
    appendLittleEndian(file, quint32(4 + chunks.size() + data.size()), 4);
    return file + "WAVE" + chunks + data;
}

bool waitUntilSilent(const KVSound &sound) {
    return QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000);
}

// Seconds from the first to the last sample louder than -40 dBFS.
double audibleSeconds(const QVector<float> &samples) {
    qsizetype first = -1, last = -1;
    for (qsizetype i = 0; i < samples.size(); ++i) {
        if (std::fabs(samples[i]) < 0.01f) continue;
        if (first < 0) first = i;
        last = i;
    }
    return first < 0 ? 0.0 : double(last - first) / 44100;
}

// Sounds found by name, in the main bundle (the test program's folder) and
// the user's sound folder. Found sounds are kept for the life of the process,
// so every test uses names of its own.
class KVSoundLookupTest : public testing::Test {
protected:
    void TearDown() override {
        for (const QString &path : written_) QFile::remove(path);
    }
    QString inBundle(const QString &file, const QByteArray &bytes) {
        return put(KVBundle::mainBundle().resourcePath() + '/' + file, bytes);
    }
    QString inUserSounds(const QString &file, const QByteArray &bytes) {
        return put(QDir::homePath() + "/.local/share/sounds/" + file, bytes);
    }

private:
    QString put(const QString &path, const QByteArray &bytes) {
        EXPECT_TRUE(TestEnvironment::writeFile(path, bytes)) << path.toStdString();
        written_ << path;
        return path;
    }
    QStringList written_;
};

TEST_F(KVSoundLookupTest, BundledWavWinsOverTheSoundFolders) {
    const QString chime = inBundle("KVTestChime.wav", wave(0.2));
    inUserSounds("KVTestChime.wav", wave(0.4));
    const std::shared_ptr<KVSound> sound = KVSound::soundNamed("KVTestChime");
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->path(), chime);
    EXPECT_EQ(sound->name(), "KVTestChime");
    EXPECT_NEAR(sound->duration(), 0.2, 0.001);

    // Any bundled WAV file of that name counts, whatever its extension.
    const QString upper = inBundle("KVTestUpper.WAV", wave(0.1));
    inUserSounds("KVTestUpper.wav", wave(0.1));
    ASSERT_NE(KVSound::soundNamed("KVTestUpper"), nullptr);
    EXPECT_EQ(KVSound::soundNamed("KVTestUpper")->path(), upper);
}

TEST_F(KVSoundLookupTest, FindsAWavInASubfolderOfTheUsersSoundsPastFilesThatAreNoWav) {
    inBundle("KVTestFake.wav", "not a sound");
    inUserSounds("KVTestFake.wav", "RIFF....WAVEjunk");
    const QString real = inUserSounds("theme/stereo/KVTestFake.wav", wave(0.1));
    const std::shared_ptr<KVSound> sound = KVSound::soundNamed("KVTestFake");
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->path(), real);
}

TEST_F(KVSoundLookupTest, MissingSoundIsNullAndAFoundSoundIsKept) {
    EXPECT_EQ(KVSound::soundNamed("KVTestNoSuchSound"), nullptr);
    EXPECT_EQ(KVSound::soundNamed(QString()), nullptr);

    const QString path = inUserSounds("KVTestKept.wav", wave(0.1));
    const std::shared_ptr<KVSound> first = KVSound::soundNamed("KVTestKept");
    ASSERT_NE(first, nullptr);
    QFile::remove(path);
    EXPECT_EQ(KVSound::soundNamed("KVTestKept"), first);
}

TEST(KVSoundFile, DurationComesFromTheHeaderAndOnlyWavFilesPlay) {
    const QString folder = TestEnvironment::makeTempDir("duration");
    TestEnvironment::writeFile(folder + "/plain.wav", wave(0.25));
    TestEnvironment::writeFile(folder + "/chunk.wav", wave(0.5, true));
    TestEnvironment::writeFile(folder + "/text.wav", "no sound");
    EXPECT_NEAR(KVSound(folder + "/plain.wav").duration(), 0.25, 0.0001);
    EXPECT_NEAR(KVSound(folder + "/chunk.wav").duration(), 0.5, 0.0001);
    EXPECT_NEAR(KVSound(kDoneSound).duration(), 0.6, 0.001);

    for (const char *file : {"/text.wav", "/missing.wav"}) {
        KVSound sound(folder + file);
        EXPECT_EQ(sound.duration(), 0.0);
        EXPECT_FALSE(sound.play());
    }
}

// Playing, heard on the test sound server's sinks.
class KVSoundPlaybackTest : public testing::Test {
protected:
    void SetUp() override {
        QString error;
        server_ = SoundServer::shared(&error);
        ASSERT_NE(server_, nullptr) << "no sound server for the test: " << error.toStdString();
    }

    SoundServer *server_ = nullptr;
};

TEST_F(KVSoundPlaybackTest, PlayIsHeardOnceOnTheDefaultOutput) {
    KVSound sound(kDoneSound);
    ASSERT_TRUE(server_->startCapture());
    ASSERT_TRUE(sound.play());
    EXPECT_TRUE(sound.isPlaying());
    EXPECT_FALSE(sound.play()) << "a playing sound does not start again";
    ASSERT_TRUE(waitUntilSilent(sound));
    const QVector<float> samples = server_->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_NEAR(SoundServer::peak(samples), 0.5, 0.05);  // the chime peaks at -6 dBFS
}

TEST_F(KVSoundPlaybackTest, PlaysToTheEndWhenTheLastOwnerLetsGo) {
    ASSERT_TRUE(server_->startCapture());
    ASSERT_TRUE(std::make_shared<KVSound>(kDoneSound)->play());
    QTest::qWait(1500);
    const QVector<float> samples = server_->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_GT(audibleSeconds(samples), 0.4);
}

TEST_F(KVSoundPlaybackTest, PlayFromAThreadWithoutEventLoopIsHeard) {
    std::shared_ptr<KVSound> sound;
    bool started = false;
    ASSERT_TRUE(server_->startCapture());
    // Made and played on a thread that ends at once; the main thread plays.
    std::thread([&] {
        sound = std::make_shared<KVSound>(kDoneSound);
        started = sound->play();
    }).join();
    ASSERT_TRUE(started);
    ASSERT_TRUE(waitUntilSilent(*sound));
    const QVector<float> samples = server_->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_GT(audibleSeconds(samples), 0.4);
}

TEST_F(KVSoundPlaybackTest, PlaysOnTheChosenDeviceAndRefusesUnknownOnes) {
    const int module = server_->addNullSink("kvtest_other");
    ASSERT_GE(module, 0);
    ASSERT_TRUE(SoundServer::waitForQtOutput("kvtest_other"));
    KVSound sound(kDoneSound);
    EXPECT_TRUE(sound.setPlaybackDeviceIdentifier("kvtest_other"));
    QString error;
    EXPECT_FALSE(sound.setPlaybackDeviceIdentifier("kvtest_no_such_device", &error));
    EXPECT_TRUE(error.contains("kvtest_no_such_device")) << error.toStdString();
    EXPECT_EQ(sound.playbackDeviceIdentifier(), "kvtest_other");

    ASSERT_TRUE(server_->startCapture("kvtest_other"));
    ASSERT_TRUE(server_->startCapture());
    ASSERT_TRUE(sound.play());
    ASSERT_TRUE(waitUntilSilent(sound));
    EXPECT_EQ(SoundServer::countSounds(server_->stopCapture("kvtest_other")), 1);
    EXPECT_EQ(SoundServer::countSounds(server_->stopCapture()), 0);

    // An empty identifier is the default device again.
    EXPECT_TRUE(sound.setPlaybackDeviceIdentifier(""));
    EXPECT_TRUE(sound.playbackDeviceIdentifier().isNull());
    ASSERT_TRUE(server_->startCapture());
    ASSERT_TRUE(sound.play());
    ASSERT_TRUE(waitUntilSilent(sound));
    EXPECT_EQ(SoundServer::countSounds(server_->stopCapture()), 1);

    EXPECT_TRUE(server_->unloadModule(module));
    EXPECT_TRUE(SoundServer::waitForQtOutput("kvtest_other", false));
}

}  // namespace
