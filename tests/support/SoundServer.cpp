#include "SoundServer.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QAudioDevice>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMediaDevices>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QThread>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <vector>

extern char **environ;

namespace {

constexpr int kSampleRate = 44100;

SoundServer *s_shared = nullptr;
QString s_startError;
bool s_tried = false;

// Children are started with posix_spawn: the test process has threads by
// then, and ThreadSanitizer refuses a fork in a threaded process.
// Long-running ones go through setpriv, so that they end with a crashed test.
pid_t spawn(QStringList arguments, const QString &output, const QStringList &environment = {},
            bool endWithParent = false, int *outputPipe = nullptr) {
    if (endWithParent) arguments = QStringList{"setpriv", "--pdeathsig", "TERM", "--"} + arguments;
    std::vector<QByteArray> argumentBytes, environmentBytes;
    for (const QString &argument : arguments) argumentBytes.push_back(argument.toLocal8Bit());
    for (const QString &entry : environment) environmentBytes.push_back(entry.toLocal8Bit());
    std::vector<char *> argv, envp;
    for (QByteArray &bytes : argumentBytes) argv.push_back(bytes.data());
    for (QByteArray &bytes : environmentBytes) envp.push_back(bytes.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    int pipeEnds[2] = {-1, -1};
    if (outputPipe && pipe2(pipeEnds, O_CLOEXEC) != 0) return -1;
    const QByteArray outputFile = QFile::encodeName(output);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (outputPipe) {
        posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.constData(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(
            &actions, STDERR_FILENO,
            (outputFile == "/dev/null" ? outputFile : outputFile + ".log").constData(),
            O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(),
                                    environment.isEmpty() ? environ : envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (outputPipe) {
        close(pipeEnds[1]);
        *outputPipe = failed ? (close(pipeEnds[0]), -1) : pipeEnds[0];
    }
    return failed ? -1 : pid;
}

// Whether the child has ended (and is reaped) within the milliseconds.
bool waitForExit(pid_t pid, int milliseconds, int *status = nullptr) {
    const QDeadlineTimer deadline(milliseconds);
    for (;;) {
        const pid_t done = waitpid(pid, status, WNOHANG);
        if (done == pid || (done < 0 && errno == ECHILD)) return true;
        if (deadline.hasExpired()) return false;
        usleep(5000);
    }
}

void stopProcess(pid_t &pid, int signal) {
    if (pid <= 0) return;
    ::kill(pid, signal);
    if (!waitForExit(pid, 5000)) {
        ::kill(pid, SIGKILL);
        waitForExit(pid, 5000);
    }
    pid = -1;
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
        // Registered before Qt first connects to the server, so it runs after
        // Qt's audio side has closed its connection at exit.
        std::atexit(stopShared);
        s_shared = new SoundServer;
        if (!s_shared->start(&s_startError)) stopShared();
    }
    if (!s_shared && error) *error = s_startError;
    return s_shared;
}

void SoundServer::stopShared() {
    if (!s_shared) return;
    for (auto &[sink, capture] : s_shared->m_captures) stopProcess(capture.pid, SIGINT);
    stopProcess(s_shared->m_keeper, SIGINT);
    stopProcess(s_shared->m_daemon, SIGTERM);
    if (!s_shared->m_folder.isEmpty()) QDir(s_shared->m_folder).removeRecursively();
    delete s_shared;
    s_shared = nullptr;
}

bool SoundServer::start(QString *error) {
    QByteArray folderTemplate = "/tmp/kv-pulse-XXXXXX";
    if (!mkdtemp(folderTemplate.data())) {
        *error = QStringLiteral("cannot make a folder for the sound server");
        return false;
    }
    m_folder = QString::fromLocal8Bit(folderTemplate);
    QDir().mkpath(m_folder + "/home/.config");
    QDir().mkpath(m_folder + "/run");
    QFile::setPermissions(m_folder + "/run",
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    // PulseAudio warns when root starts it outside system mode but runs; a
    // home and runtime folder of its own keep it away from any other server.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("HOME", m_folder + "/home");
    environment.insert("XDG_CONFIG_HOME", m_folder + "/home/.config");
    environment.insert("XDG_RUNTIME_DIR", m_folder + "/run");
    environment.remove("PULSE_SERVER");
    // Off the session bus: on it every server claims one name, and test
    // programs running side by side each have their own server.
    environment.remove("DBUS_SESSION_BUS_ADDRESS");
    environment.remove("DISPLAY");
    const QString log = m_folder + "/pulseaudio";
    m_daemon = spawn({"pulseaudio", "-n", "--daemonize=no", "--system=false", "--exit-idle-time=-1",
                      "--disable-shm", "--use-pid-file=no",
                      QStringLiteral("--load=module-null-sink sink_name=%1").arg(kSinkName),
                      QStringLiteral("--load=module-native-protocol-unix socket=%1 "
                                     "auth-anonymous=1")
                          .arg(socketPath())},
                     log, environment.toStringList(), true);
    if (m_daemon <= 0) {
        *error = QStringLiteral("cannot start pulseaudio (scripts/install-deps installs it)");
        return false;
    }

    // Every later client of this process, Qt's included, finds the server here.
    qputenv("PULSE_SERVER", "unix:" + QFile::encodeName(socketPath()));
    const QDeadlineTimer deadline(10000);
    while (!pactl({"info"})) {
        if (waitForExit(m_daemon, 50) || deadline.hasExpired()) {
            *error =
                QStringLiteral("pulseaudio did not answer; its log ends:\n") + tail(log + ".log");
            return false;
        }
    }
    if (!pactl({"set-default-sink", kSinkName})) {
        *error = QStringLiteral("cannot make %1 the default sink").arg(kSinkName);
        return false;
    }
    if (!startKeeper()) {
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

// A recording that never ends keeps the test sink in short blocks, so each
// capture starts at once.
bool SoundServer::startKeeper() {
    stopProcess(m_keeper, SIGINT);
    m_keeper =
        spawn({"parec", QStringLiteral("--device=%1.monitor").arg(kSinkName), "--latency-msec=20"},
              "/dev/null", {}, true);
    return m_keeper > 0;
}

bool SoundServer::pactl(const QStringList &arguments, QString *output) const {
    int readEnd = -1;
    const pid_t pid = spawn(QStringList{"pactl"} + arguments, QString(), {}, false, &readEnd);
    if (pid <= 0) return false;
    QByteArray bytes;
    char buffer[4096];
    for (ssize_t n; (n = read(readEnd, buffer, sizeof buffer)) != 0;) {
        if (n > 0)
            bytes.append(buffer, n);
        else if (errno != EINTR)
            break;
    }
    close(readEnd);
    int status = 0;
    if (!waitForExit(pid, 10000, &status)) {
        ::kill(pid, SIGKILL);
        waitForExit(pid, 1000);
        return false;
    }
    if (output) *output = QString::fromUtf8(bytes);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
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

bool SoundServer::removeTestSink() {
    QString modules;
    if (!pactl({"list", "short", "modules"}, &modules)) return false;
    const QRegularExpressionMatch module =
        QRegularExpression(
            QStringLiteral("^(\\d+)\\s+module-null-sink\\s+sink_name=%1\\b").arg(kSinkName),
            QRegularExpression::MultilineOption)
            .match(modules);
    return module.hasMatch() && unloadModule(module.captured(1).toInt()) &&
           waitForQtOutput(kSinkName, false);
}

bool SoundServer::restoreTestSink() {
    return addNullSink(kSinkName) >= 0 && pactl({"set-default-sink", kSinkName}) && startKeeper() &&
           waitForQtOutput(kSinkName);
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
    capture.pid = spawn({"parec", "--device=" + sink + ".monitor", "--format=s16le", "--rate=44100",
                         "--channels=1", "--latency-msec=20"},
                        capture.file, {}, true);
    if (capture.pid <= 0) return false;
    // A null sink without low-latency clients renders in blocks of seconds;
    // data in the file means the recording runs.
    const QDeadlineTimer deadline(10000);
    while (QFileInfo(capture.file).size() == 0) {
        if (deadline.hasExpired() || waitForExit(capture.pid, 5)) {
            stopProcess(capture.pid, SIGINT);
            return false;
        }
    }
    m_captures.emplace(sink, capture);
    return true;
}

QVector<float> SoundServer::stopCapture(const QString &sink, int settleMilliseconds) {
    auto it = m_captures.find(sink);
    if (it == m_captures.end()) return {};
    Capture capture = it->second;
    m_captures.erase(it);
    const qint64 wanted =
        QFileInfo(capture.file).size() + qint64(kSampleRate) * 2 * settleMilliseconds / 1000;
    const QDeadlineTimer deadline(settleMilliseconds * 4 + 2000);
    while (QFileInfo(capture.file).size() < wanted && !deadline.hasExpired()) {
        QCoreApplication::processEvents();
        QThread::msleep(10);
    }
    stopProcess(capture.pid, SIGINT);
    QFile file(capture.file);
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
    return samples;
}

double SoundServer::peak(const QVector<float> &samples) {
    double loudest = 0.0;
    for (float sample : samples) loudest = std::max(loudest, std::fabs(double(sample)));
    return loudest;
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
