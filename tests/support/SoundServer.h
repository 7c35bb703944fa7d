// A private PulseAudio server with a null sink ("kvtest_sink") as its default
// output; recording the sink's monitor proves that a sound played, and how
// loud. Qt Multimedia keeps its first connection for the whole process, so
// there is one server per test program, started before Qt looks for audio
// devices and stopped at exit.
#pragma once

#include <sys/types.h>

#include <QString>
#include <QVector>

class SoundServer {
public:
    static constexpr const char *kSinkName = "kvtest_sink";

    // Started on the first call; nullptr when it cannot run, with the reason in *error.
    static SoundServer *shared(QString *error = nullptr);

    // Records the sink's monitor (mono, 44.1 kHz) from when it returns.
    bool startCapture();
    // The samples, -1.0 to 1.0, after half a second more: sound reaches the
    // monitor a little late.
    QVector<float> stopCapture();

    static double peak(const QVector<float> &samples);
    // Stretches louder than 0.01 apart by at least 0.15 s of quieter samples.
    static int countSounds(const QVector<float> &samples);

private:
    QString start();
    static void stopShared();

    QString m_folder, m_capture;
    pid_t m_daemon = -1, m_keeper = -1, m_recorder = -1;
    int m_captureCount = 0;
};
