#include "SoundServer.h"

#include <QAudioDevice>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMediaDevices>
#include <QThread>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <sys/prctl.h>

namespace {

constexpr int kSampleRate = 44100;

SoundServer *s_shared = nullptr;
QString s_startError;
bool s_tried = false;

// A child that outlives a crashed test would keep the sound server running.
void dieWithParent() { prctl(PR_SET_PDEATHSIG, SIGTERM); }

std::unique_ptr<QProcess> makeProcess(const QString &outputFile) {
    auto process = std::make_unique<QProcess>();
    process->setChildProcessModifier(dieWithParent);
    process->setStandardOutputFile(outputFile);
    return process;
}

void stopProcess(QProcess *process, int signal) {
    if (!process || process->state() == QProcess::NotRunning) return;
    ::kill(static_cast<pid_t>(process->processId()), signal);
    if (!process->waitForFinished(5000)) {
        ::kill(static_cast<pid_t>(process->processId()), SIGKILL);
        process->waitForFinished(5000);
    }
}

QString tail(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return QString();
    const QList<QByteArray> lines = file.readAll().trimmed().split('\n');
    return QString::fromUtf8(lines.mid(std::max<qsizetype>(0, lines.size() - 8)).join('\n'));
}

}  // namespace

SoundServer *SoundServer::shared(QString *error) {
    if (!s_tried) {
        s_tried = true;
        auto server = new SoundServer;
        if (server->start(&s_startError)) {
            s_shared = server;
            qAddPostRoutine(stopShared);
        } else {
            server->stop();
            delete server;
        }
    }
    if (!s_shared && error) *error = s_startError;
    return s_shared;
}

void SoundServer::stopShared() {
    delete s_shared;
    s_shared = nullptr;
}

SoundServer::~SoundServer() { stop(); }

bool SoundServer::start(QString *error) {
    QByteArray folderTemplate = "/tmp/kv-pulse-XXXXXX";
    if (!mkdtemp(folderTemplate.data())) {
        *error = QStringLiteral("cannot make a folder for the sound server");
        return false;
    }
    m_folder = QString::fromLocal8Bit(folderTemplate);
    QDir().mkpath(m_folder + "/home/.config");
    QDir().mkpath(m_folder + "/run");
    QFile::setPermissions(m_folder + "/run", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    // PulseAudio warns when root starts it outside system mode but runs; a
    // home and runtime folder of its own keep it away from any other server.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("HOME", m_folder + "/home");
    environment.insert("XDG_CONFIG_HOME", m_folder + "/home/.config");
    environment.insert("XDG_RUNTIME_DIR", m_folder + "/run");
    environment.remove("PULSE_SERVER");
    const QString log = m_folder + "/pulseaudio.log";
    m_daemon = makeProcess(log);
    m_daemon->setProcessChannelMode(QProcess::MergedChannels);
    m_daemon->setProcessEnvironment(environment);
    m_daemon->start(QStringLiteral("pulseaudio"),
                    {"-n", "--daemonize=no", "--system=false", "--exit-idle-time=-1",
                     "--disable-shm", "--use-pid-file=no",
                     QStringLiteral("--load=module-null-sink sink_name=%1").arg(kSinkName),
                     QStringLiteral("--load=module-native-protocol-unix socket=%1 auth-anonymous=1")
                         .arg(socketPath())});
    if (!m_daemon->waitForStarted(10000)) {
        *error = QStringLiteral("cannot start pulseaudio (scripts/install-deps installs it): ") +
                 m_daemon->errorString();
        return false;
    }

    // Every later client of this process, Qt's included, finds the server here.
    qputenv("PULSE_SERVER", "unix:" + QFile::encodeName(socketPath()));
    const QDeadlineTimer deadline(10000);
    while (!pactl({"info"})) {
        if (m_daemon->state() == QProcess::NotRunning || deadline.hasExpired()) {
            *error = QStringLiteral("pulseaudio did not answer; its log ends:\n") + tail(log);
            return false;
        }
        QThread::msleep(50);
    }
    if (!pactl({"set-default-sink", kSinkName})) {
        *error = QStringLiteral("cannot make %1 the default sink").arg(kSinkName);
        return false;
    }
    // A recording that never ends keeps the test sink in short blocks, so
    // each capture starts at once.
    m_keeper = makeProcess(QStringLiteral("/dev/null"));
    m_keeper->start(QStringLiteral("parec"), {QStringLiteral("--device=%1.monitor").arg(kSinkName),
                                              "--latency-msec=20"});
    if (!m_keeper->waitForStarted(10000)) {
        *error = QStringLiteral("cannot start parec (scripts/install-deps installs it)");
        return false;
    }
    if (!waitForQtOutput(kSinkName)) {
        *error = QStringLiteral(
            "Qt Multimedia does not see the test sink: was it asked for audio devices before "
            "the sound server started?");
        return false;
    }
    return true;
}

void SoundServer::stop() {
    for (auto &[sink, capture] : m_captures) stopProcess(capture.process.get(), SIGINT);
    m_captures.clear();
    stopProcess(m_keeper.get(), SIGINT);
    m_keeper.reset();
    stopProcess(m_daemon.get(), SIGTERM);
    m_daemon.reset();
    if (!m_folder.isEmpty()) QDir(m_folder).removeRecursively();
    m_folder.clear();
}

bool SoundServer::pactl(const QStringList &arguments, QString *output) const {
    QProcess process;
    process.setChildProcessModifier(dieWithParent);
    process.start(QStringLiteral("pactl"), arguments);
    const bool ok = process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit &&
                    process.exitCode() == 0;
    if (output) *output = QString::fromUtf8(process.readAllStandardOutput());
    return ok;
}

int SoundServer::addNullSink(const QString &name) {
    QString output;
    if (!pactl({"load-module", "module-null-sink", "sink_name=" + name}, &output)) return -1;
    bool ok = false;
    const int index = output.trimmed().toInt(&ok);
    return ok ? index : -1;
}

bool SoundServer::unloadModule(int index) {
    return pactl({"unload-module", QString::number(index)});
}

bool SoundServer::waitForQtOutput(const QString &identifier, bool present) {
    const QDeadlineTimer deadline(5000);
    for (;;) {
        bool listed = false;
        for (const QAudioDevice &device : QMediaDevices::audioOutputs())
            listed = listed || device.id() == identifier.toUtf8();
        if (listed == present) return true;
        if (deadline.hasExpired()) return false;
        QCoreApplication::processEvents();
        QThread::msleep(20);
    }
}

bool SoundServer::startCapture(const QString &sink) {
    if (m_captures.count(sink)) return false;
    Capture capture;
    capture.file = QStringLiteral("%1/capture-%2.raw").arg(m_folder).arg(++m_captureCount);
    capture.process = makeProcess(capture.file);
    capture.process->setStandardErrorFile(capture.file + ".log");
    capture.process->start(QStringLiteral("parec"),
                           {"--device=" + sink + ".monitor", "--format=s16le", "--rate=44100",
                            "--channels=1", "--latency-msec=20"});
    if (!capture.process->waitForStarted(10000)) return false;
    // A null sink without low-latency clients renders in blocks of seconds;
    // data in the file means the recording runs.
    const QDeadlineTimer deadline(10000);
    while (QFileInfo(capture.file).size() == 0) {
        if (deadline.hasExpired() || capture.process->state() == QProcess::NotRunning) {
            stopProcess(capture.process.get(), SIGINT);
            return false;
        }
        QThread::msleep(5);
    }
    m_captures.emplace(sink, std::move(capture));
    return true;
}

QVector<float> SoundServer::stopCapture(const QString &sink, int settleMilliseconds) {
    auto it = m_captures.find(sink);
    if (it == m_captures.end()) return {};
    const qint64 wanted =
        QFileInfo(it->second.file).size() + qint64(kSampleRate) * 2 * settleMilliseconds / 1000;
    const QDeadlineTimer deadline(settleMilliseconds * 4 + 2000);
    while (QFileInfo(it->second.file).size() < wanted && !deadline.hasExpired()) {
        QCoreApplication::processEvents();
        QThread::msleep(10);
    }
    stopProcess(it->second.process.get(), SIGINT);
    QFile file(it->second.file);
    QVector<float> samples;
    if (file.open(QIODevice::ReadOnly)) {
        const QByteArray bytes = file.readAll();
        samples.reserve(bytes.size() / 2);
        for (qsizetype i = 0; i + 1 < bytes.size(); i += 2) {
            const auto value = static_cast<qint16>(static_cast<quint8>(bytes[i]) |
                                                   (static_cast<quint8>(bytes[i + 1]) << 8));
            samples.append(value / 32768.0f);
        }
    }
    m_captures.erase(it);
    return samples;
}

double SoundServer::peak(const QVector<float> &samples) {
    double loudest = 0.0;
    for (float sample : samples) loudest = std::max(loudest, std::fabs(double(sample)));
    return loudest;
}

double SoundServer::rms(const QVector<float> &samples) {
    if (samples.isEmpty()) return 0.0;
    double sum = 0.0;
    for (float sample : samples) sum += double(sample) * sample;
    return std::sqrt(sum / samples.size());
}

int SoundServer::countSounds(const QVector<float> &samples, double threshold,
                             double minimumGapSeconds) {
    const qsizetype minimumGap = qsizetype(minimumGapSeconds * kSampleRate);
    int sounds = 0;
    bool inSound = false;
    qsizetype quiet = 0;
    for (float sample : samples) {
        if (std::fabs(sample) > threshold) {
            if (!inSound) ++sounds;
            inSound = true;
            quiet = 0;
        } else if (inSound && ++quiet >= minimumGap) {
            inSound = false;
        }
    }
    return sounds;
}
