// A private PulseAudio server for the test process, with a null sink
// ("kvtest_sink") as its default output. Recording the sink's monitor proves
// that a sound was played, and how loud.
//
// Qt Multimedia connects to a sound server once per process and keeps that
// connection, so there is one server per test program: started on first use
// (before anything asks Qt for audio devices), never restarted, and stopped
// at exit.
#pragma once

#include <sys/types.h>

#include <QString>
#include <QStringList>
#include <QVector>
#include <map>

class SoundServer {
public:
    static constexpr const char *kSinkName = "kvtest_sink";

    // Started on the first call; nullptr when it cannot run, with the reason in *error.
    static SoundServer *shared(QString *error = nullptr);

    // Loads one more null sink; its module index, or -1.
    int addNullSink(const QString &name);
    bool unloadModule(int index);
    // Takes the test sink away, leaving the server without any output, and
    // puts it back as the default.
    bool removeTestSink();
    bool restoreTestSink();
    // Waits until Qt Multimedia lists (or no longer lists) the output.
    static bool waitForQtOutput(const QString &identifier, bool present = true);

    // Records the sink's monitor (mono, 44.1 kHz) from when it returns.
    bool startCapture(const QString &sink = kSinkName);
    // The samples, -1.0 to 1.0, after settleMilliseconds more: sound reaches
    // the monitor a little late.
    QVector<float> stopCapture(const QString &sink = kSinkName, int settleMilliseconds = 500);

    static double peak(const QVector<float> &samples);
    // Stretches louder than the threshold, apart by at least minimumGapSeconds
    // of quieter samples.
    static int countSounds(const QVector<float> &samples, double threshold = 0.01,
                           double minimumGapSeconds = 0.15);

private:
    SoundServer() = default;
    QString start();
    bool startKeeper();
    bool pactl(const QStringList &arguments, QString *output = nullptr) const;
    static void stopShared();

    QString m_folder;
    pid_t m_daemon = -1, m_keeper = -1;
    std::map<QString, std::pair<pid_t, QString>> m_captures;  // sink: recorder, file
    int m_captureCount = 0;
};
