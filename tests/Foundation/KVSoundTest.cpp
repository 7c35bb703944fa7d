#include <gtest/gtest.h>

#include <QAudioDevice>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMediaDevices>
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

// A mono 16-bit 44.1 kHz WAV file with a 440 Hz tone; an extra chunk before
// the data, as many writers put one there, when asked.
QByteArray wave(double seconds, bool extraChunk = false) {
    const int frames = int(seconds * 44100);
    QByteArray data;
    for (int i = 0; i < frames; ++i)
        appendLittleEndian(data, quint16(qint16(8000 * std::sin(2 * M_PI * 440 * i / 44100.0))), 2);
    QByteArray chunks = "fmt ";
    appendLittleEndian(chunks, 16, 4);
    for (auto [value, size] : {std::pair{1u, 2}, {1u, 2}, {44100u, 4}, {88200u, 4}, {2u, 2}, {16u, 2}})
        appendLittleEndian(chunks, value, size);
    if (extraChunk) {
        chunks += "LIST";
        appendLittleEndian(chunks, 5, 4);
        chunks += QByteArray("INFO?") + '\0';  // odd size, padded
    }
    chunks += "data";
    appendLittleEndian(chunks, quint32(data.size()), 4);
    QByteArray file = "RIFF";
    appendLittleEndian(file, quint32(4 + chunks.size() + data.size()), 4);
    return file + "WAVE" + chunks + data;
}

bool waitUntilSilent(const KVSound &sound) {
    return QTest::qWaitFor([&] { return !sound.isPlaying(); }, 5000);
}

// Seconds from the first to the last sample louder than the threshold.
double audibleSeconds(const QVector<float> &samples, float threshold = 0.01f) {
    qsizetype first = -1, last = -1;
    for (qsizetype i = 0; i < samples.size(); ++i) {
        if (std::fabs(samples[i]) > threshold) {
            if (first < 0) first = i;
            last = i;
        }
    }
    return first < 0 ? 0.0 : double(last - first) / 44100;
}

// Everything that makes a KVSound talks to the sound server, which has to run
// before Qt is first asked for audio devices.
class KVSoundTest : public testing::Test {
protected:
    void SetUp() override {
        QString error;
        server_ = SoundServer::shared(&error);
        ASSERT_NE(server_, nullptr) << "no sound server for the test: " << error.toStdString();
    }

    SoundServer *server_ = nullptr;
};

// Sounds found by name. Names are unique per test: found sounds are kept for
// the life of the process.
class KVSoundNamedTest : public KVSoundTest {
protected:
    void TearDown() override {
        for (const QString &path : written_) QFile::remove(path);
    }

    QString put(const QString &path, const QByteArray &bytes) {
        EXPECT_TRUE(TestEnvironment::writeFile(path, bytes)) << path.toStdString();
        written_ << path;
        return path;
    }
    static QString resource(const QString &file) {
        return KVBundle::mainBundle().resourcePath() + '/' + file;
    }
    static QString userSounds(const QString &file) {
        return QDir::homePath() + "/.local/share/sounds/" + file;
    }

private:
    QStringList written_;
};

}  // namespace

TEST_F(KVSoundNamedTest, BundleResourceWinsOverTheSoundFolders) {
    const QString bundled = put(resource("KVTestChime.wav"), wave(0.2));
    put(userSounds("KVTestChime.wav"), wave(0.4));
    const std::shared_ptr<KVSound> sound = KVSound::soundNamed("KVTestChime");
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->path(), bundled);
    EXPECT_EQ(sound->name(), "KVTestChime");
    EXPECT_NEAR(sound->duration(), 0.2, 0.001);
}

TEST_F(KVSoundNamedTest, FindsAWavFileInASubfolderOfTheUsersSounds) {
    const QString path = put(userSounds("theme/stereo/KVTestUserSound.wav"), wave(0.3));
    const std::shared_ptr<KVSound> sound = KVSound::soundNamed("KVTestUserSound");
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->path(), path);
}

TEST_F(KVSoundNamedTest, TakesAnyBundledWavFileWithThatNameBeforeTheFolders) {
    const QString bundled = put(resource("KVTestUpper.WAV"), wave(0.1));
    put(userSounds("KVTestUpper.wav"), wave(0.1));
    const std::shared_ptr<KVSound> sound = KVSound::soundNamed("KVTestUpper");
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->path(), bundled);
}

TEST_F(KVSoundNamedTest, SkipsFilesThatAreNoWav) {
    put(resource("KVTestFake.wav"), "not a sound");
    const QString real = put(userSounds("KVTestFake.wav"), wave(0.1));
    const std::shared_ptr<KVSound> sound = KVSound::soundNamed("KVTestFake");
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->path(), real);

    put(resource("KVTestOnlyFake.wav"), "RIFF....WAVEjunk");
    EXPECT_EQ(KVSound::soundNamed("KVTestOnlyFake"), nullptr);
}

TEST_F(KVSoundNamedTest, MissingSoundIsNullAndFoundSoundsAreKept) {
    EXPECT_EQ(KVSound::soundNamed("KVTestNoSuchSound"), nullptr);
    EXPECT_EQ(KVSound::soundNamed(QString()), nullptr);

    const QString path = put(userSounds("KVTestKept.wav"), wave(0.1));
    const std::shared_ptr<KVSound> first = KVSound::soundNamed("KVTestKept");
    ASSERT_NE(first, nullptr);
    QFile::remove(path);
    EXPECT_EQ(KVSound::soundNamed("KVTestKept"), first);
}

TEST_F(KVSoundTest, DurationComesFromTheHeader) {
    const QString folder = TestEnvironment::makeTempDir("duration");
    TestEnvironment::writeFile(folder + "/plain.wav", wave(0.25));
    TestEnvironment::writeFile(folder + "/chunk.wav", wave(0.5, true));
    TestEnvironment::writeFile(folder + "/text.wav", "no sound");
    EXPECT_NEAR(KVSound(folder + "/plain.wav").duration(), 0.25, 0.0001);
    EXPECT_NEAR(KVSound(folder + "/chunk.wav").duration(), 0.5, 0.0001);
    EXPECT_NEAR(KVSound(kDoneSound).duration(), 0.6, 0.001);

    KVSound text(folder + "/text.wav");
    EXPECT_EQ(text.duration(), 0.0);
    EXPECT_FALSE(text.play());
    KVSound missing(folder + "/missing.wav");
    EXPECT_EQ(missing.duration(), 0.0);
    EXPECT_FALSE(missing.play());
}

// ---- Playing ----

TEST_F(KVSoundTest, PlayIsHeardOnceOnTheDefaultOutput) {
    KVSound sound(kDoneSound);
    EXPECT_TRUE(sound.name().isNull());
    ASSERT_TRUE(server_->startCapture());
    ASSERT_TRUE(sound.play());
    EXPECT_TRUE(sound.isPlaying());
    EXPECT_FALSE(sound.play()) << "a playing sound does not start again";
    ASSERT_TRUE(waitUntilSilent(sound));
    const QVector<float> samples = server_->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_NEAR(SoundServer::peak(samples), 0.5, 0.05);  // the chime peaks at -6 dBFS
}

TEST_F(KVSoundTest, PlaysToTheEndWhenTheLastOwnerLetsGo) {
    ASSERT_TRUE(server_->startCapture());
    {
        auto sound = std::make_shared<KVSound>(kDoneSound);
        ASSERT_TRUE(sound->play());
    }
    QTest::qWait(1000);
    const QVector<float> samples = server_->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_GT(audibleSeconds(samples), 0.4);
}

TEST_F(KVSoundTest, PlayFromAThreadWithoutEventLoopIsHeard) {
    std::shared_ptr<KVSound> sound;
    bool started = false;
    ASSERT_TRUE(server_->startCapture());
    // Made and played on the thread, which ends at once; the main thread plays.
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

TEST_F(KVSoundTest, VolumeScalesTheLevelAndIsClamped) {
    KVSound sound(kDoneSound);
    sound.setVolume(1.7f);
    EXPECT_EQ(sound.volume(), 1.0f);
    sound.setVolume(-1.0f);
    EXPECT_EQ(sound.volume(), 0.0f);

    sound.setVolume(0.25f);
    ASSERT_TRUE(server_->startCapture());
    ASSERT_TRUE(sound.play());
    ASSERT_TRUE(waitUntilSilent(sound));
    const QVector<float> samples = server_->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(samples), 1);
    EXPECT_NEAR(SoundServer::peak(samples), 0.125, 0.025);
}

// ---- Output devices ----

TEST_F(KVSoundTest, PlaysOnTheChosenDeviceAndBackOnTheDefault) {
    const int module = server_->addNullSink("kvtest_other");
    ASSERT_GE(module, 0);
    ASSERT_TRUE(SoundServer::waitForQtOutput("kvtest_other"));
    KVSound sound(kDoneSound);
    EXPECT_TRUE(sound.setPlaybackDeviceIdentifier("kvtest_other"));
    EXPECT_EQ(sound.playbackDeviceIdentifier(), "kvtest_other");

    ASSERT_TRUE(server_->startCapture("kvtest_other"));
    ASSERT_TRUE(server_->startCapture());
    ASSERT_TRUE(sound.play());
    ASSERT_TRUE(waitUntilSilent(sound));
    const QVector<float> chosen = server_->stopCapture("kvtest_other");
    const QVector<float> standard = server_->stopCapture();
    EXPECT_EQ(SoundServer::countSounds(chosen), 1);
    EXPECT_EQ(SoundServer::countSounds(standard), 0);

    EXPECT_TRUE(sound.setPlaybackDeviceIdentifier(QString()));
    EXPECT_TRUE(sound.playbackDeviceIdentifier().isNull());
    ASSERT_TRUE(server_->startCapture());
    ASSERT_TRUE(sound.play());
    ASSERT_TRUE(waitUntilSilent(sound));
    EXPECT_EQ(SoundServer::countSounds(server_->stopCapture()), 1);

    EXPECT_TRUE(server_->unloadModule(module));
    EXPECT_TRUE(SoundServer::waitForQtOutput("kvtest_other", false));
}

TEST_F(KVSoundTest, UnknownDeviceIsRefusedAndTheEarlierChoiceStays) {
    KVSound sound(kDoneSound);
    ASSERT_TRUE(sound.setPlaybackDeviceIdentifier(SoundServer::kSinkName));
    QString error;
    EXPECT_FALSE(sound.setPlaybackDeviceIdentifier("kvtest_no_such_device", &error));
    EXPECT_TRUE(error.contains("kvtest_no_such_device")) << error.toStdString();
    EXPECT_EQ(sound.playbackDeviceIdentifier(), SoundServer::kSinkName);
    EXPECT_TRUE(sound.setPlaybackDeviceIdentifier(""));
    EXPECT_TRUE(sound.playbackDeviceIdentifier().isNull());
}
