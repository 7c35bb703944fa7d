#include "SoundServer.h"

#include <QAudioDevice>
#include <QDeadlineTimer>
#include <QDir>
#include <QMediaDevices>
#include <QRegularExpression>
#include <QTest>
#include <QtEndian>
#include <cmath>
#include <cstdlib>

#include "Spawn.h"
#include "TestEnvironment.h"

namespace {
constexpr int kSampleRate = 44100;
SoundServer *s_shared = nullptr;
QString s_startError;

// Long-running children end with a crashed test.
pid_t spawnQt(const QStringList &arguments, const QString &output, const QString &errors,
              bool endWithParent = true) {
    std::vector<std::string> words;
    for (const QString &argument : arguments) words.push_back(argument.toStdString());
    return spawn(words, output.toStdString(), errors.toStdString(), endWithParent);
}

QByteArray readAll(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
}  // namespace

SoundServer *SoundServer::shared(QString *error) {
    static bool tried = false;
    if (!tried) {
        tried = true;
        // Registered before Qt first connects to the server, so it runs after
        // Qt's audio side has closed its connection at exit.
        std::atexit(stopShared);
        s_shared = new SoundServer;
        s_startError = s_shared->start();
        if (!s_startError.isEmpty()) stopShared();
    }
    if (!s_shared && error) *error = s_startError;
    return s_shared;
}

void SoundServer::stopShared() {
    if (!s_shared) return;
    for (auto &[sink, capture] : s_shared->m_captures) stopProcess(capture.first, SIGINT);
    stopProcess(s_shared->m_keeper, SIGINT);
    stopProcess(s_shared->m_daemon);
    if (!s_shared->m_folder.isEmpty()) QDir(s_shared->m_folder).removeRecursively();
    delete s_shared;
    s_shared = nullptr;
}

QString SoundServer::start() {
    QByteArray folder = "/tmp/kv-pulse-XXXXXX";
    if (!mkdtemp(folder.data())) return "cannot make a folder for the sound server";
    m_folder = QString::fromLocal8Bit(folder);
    const QString socket = m_folder + "/native", script = m_folder + "/server.pa";
    QDir().mkpath(m_folder + "/run");
    QFile::setPermissions(m_folder + "/run",
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    TestEnvironment::writeFile(script, QStringLiteral("load-module module-null-sink sink_name=%1\n"
                                                      "set-default-sink %1\n"
                                                      "load-module module-native-protocol-unix "
                                                      "socket=%2 auth-anonymous=1\n")
                                           .arg(kSinkName, socket)
                                           .toUtf8());
    // PulseAudio warns when root starts it outside system mode but runs; a
    // home and runtime folder of its own keep it away from any other server.
    // Off the session bus: on it every server claims one name, and test
    // programs running side by side each have their own server.
    const QString log = m_folder + "/pulseaudio.log";
    m_daemon =
        spawnQt({"env", "-u", "PULSE_SERVER", "-u", "DBUS_SESSION_BUS_ADDRESS", "-u", "DISPLAY",
                 "HOME=" + m_folder, "XDG_CONFIG_HOME=" + m_folder,
                 "XDG_RUNTIME_DIR=" + m_folder + "/run", "pulseaudio", "-n", "-F", script,
                 "--daemonize=no", "--exit-idle-time=-1", "--disable-shm", "--use-pid-file=no"},
                "/dev/null", log);
    // Every later client of this process, Qt's included, finds the server here.
    qputenv("PULSE_SERVER", "unix:" + QFile::encodeName(socket));
    const QDeadlineTimer deadline(10000);
    while (m_daemon > 0 && !pactl({"info"})) {
        if (waitForExit(m_daemon, 50) || deadline.hasExpired())
            return "pulseaudio did not answer; its log ends:\n" + readAll(log).right(800);
    }
    if (m_daemon <= 0 || !startKeeper())
        return "cannot start pulseaudio or parec (scripts/install-deps installs them)";
    if (!waitForQtOutput(kSinkName))
        return "Qt Multimedia does not see the test sink: was it asked for audio devices before "
               "the sound server started?";
    return {};
}

// A recording that never ends keeps the test sink in short blocks, so each
// capture starts at once.
bool SoundServer::startKeeper() {
    stopProcess(m_keeper, SIGINT);
    m_keeper = spawnQt(
        {"parec", QStringLiteral("--device=%1.monitor").arg(kSinkName), "--latency-msec=20"},
        "/dev/null", "/dev/null");
    return m_keeper > 0;
}

bool SoundServer::pactl(const QStringList &arguments, QString *output) const {
    const QString file = m_folder + "/pactl.txt";
    pid_t pid = spawnQt(QStringList{"pactl"} + arguments, file, "/dev/null", false);
    int status = 0;
    if (pid <= 0 || !waitForExit(pid, 10000, &status)) {
        stopProcess(pid, SIGKILL);
        return false;
    }
    if (output) *output = QString::fromUtf8(readAll(file));
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int SoundServer::addNullSink(const QString &name) {
    QString output;
    pactl({"load-module", "module-null-sink", "sink_name=" + name}, &output);
    bool ok = false;
    const int index = output.trimmed().toInt(&ok);
    return ok ? index : -1;
}

bool SoundServer::unloadModule(int index) {
    return pactl({"unload-module", QString::number(index)});
}

bool SoundServer::removeTestSink() {
    QString modules;
    pactl({"list", "short", "modules"}, &modules);
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
    const auto listed = [&] {
        for (const QAudioDevice &device : QMediaDevices::audioOutputs())
            if (device.id() == identifier.toUtf8()) return true;
        return false;
    };
    return QTest::qWaitFor([&] { return listed() == present; }, 5000);
}

bool SoundServer::startCapture(const QString &sink) {
    if (m_captures.count(sink)) return false;
    const QString file = QStringLiteral("%1/capture-%2.raw").arg(m_folder).arg(++m_captureCount);
    pid_t pid = spawnQt({"parec", "--device=" + sink + ".monitor", "--format=s16le", "--rate=44100",
                         "--channels=1", "--latency-msec=20"},
                        file, file + ".log");
    // A null sink without low-latency clients renders in blocks of seconds;
    // data in the file means the recording runs.
    const QDeadlineTimer deadline(10000);
    while (pid > 0 && QFileInfo(file).size() == 0) {
        if (deadline.hasExpired() || waitForExit(pid, 5)) stopProcess(pid, SIGINT);
    }
    if (pid > 0) m_captures.emplace(sink, std::pair(pid, file));
    return pid > 0;
}

QVector<float> SoundServer::stopCapture(const QString &sink, int settleMilliseconds) {
    auto it = m_captures.find(sink);
    if (it == m_captures.end()) return {};
    auto [pid, file] = it->second;
    m_captures.erase(it);
    const qint64 wanted =
        QFileInfo(file).size() + qint64(kSampleRate) * 2 * settleMilliseconds / 1000;
    (void)QTest::qWaitFor([&] { return QFileInfo(file).size() >= wanted; },
                          settleMilliseconds * 4 + 2000);
    stopProcess(pid, SIGINT);
    const QByteArray bytes = readAll(file);
    QVector<float> samples(bytes.size() / 2);
    for (qsizetype i = 0; i < samples.size(); ++i)
        samples[i] = qFromLittleEndian<qint16>(bytes.constData() + 2 * i) / 32768.0f;
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
            sounds += inSound ? 0 : 1;
            inSound = true;
            quiet = 0;
        } else if (inSound && ++quiet >= minimumGap) {
            inSound = false;
        }
    }
    return sounds;
}
