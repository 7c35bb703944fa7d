#include "SoundServer.h"

#include <QAudioDevice>
#include <QDeadlineTimer>
#include <QDir>
#include <QMediaDevices>
#include <QTest>
#include <QtEndian>
#include <cmath>
#include <cstdlib>

#include "Spawn.h"
#include "TestEnvironment.h"

namespace {
constexpr int kSampleRate = 44100;
const QString kMonitor = QString("--device=") + SoundServer::kSinkName + ".monitor";
SoundServer *s_shared = nullptr;
QString s_startError;

// Long-running children end with a crashed test.
pid_t spawnQt(const QStringList &arguments, const QString &output, const QString &errors,
              bool endWithParent = true) {
    std::vector<std::string> words;
    for (const QString &argument : arguments) words.push_back(argument.toStdString());
    return spawn(words, output.toStdString(), errors.toStdString(), endWithParent);
}
}  // namespace

SoundServer *SoundServer::shared(QString *error) {
    static bool tried = false;
    if (!tried) {
        tried = true;
        // Registered before Qt first connects, so it runs after Qt's audio
        // side has closed its connection at exit.
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
    stopProcess(s_shared->m_recorder, SIGINT);
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
    // Its own home and runtime folder, and off the session bus (where every
    // server claims one name), keep it apart from other test programs' servers.
    const QString log = m_folder + "/pulseaudio.log";
    m_daemon =
        spawnQt({"env", "-u", "PULSE_SERVER", "-u", "DBUS_SESSION_BUS_ADDRESS", "-u", "DISPLAY",
                 "HOME=" + m_folder, "XDG_CONFIG_HOME=" + m_folder,
                 "XDG_RUNTIME_DIR=" + m_folder + "/run", "pulseaudio", "-n", "-F", script,
                 "--daemonize=no", "--exit-idle-time=-1", "--disable-shm", "--use-pid-file=no"},
                "/dev/null", log);
    // Every later client of this process, Qt's included, finds the server here.
    qputenv("PULSE_SERVER", "unix:" + QFile::encodeName(socket));
    const auto answers = [&] {
        int status = 0;
        pid_t pid = spawnQt({"pactl", "info"}, "/dev/null", "/dev/null", false);
        if (pid > 0 && waitForExit(pid, 10000, &status))
            return WIFEXITED(status) && !WEXITSTATUS(status);
        stopProcess(pid, SIGKILL);
        return false;
    };
    const QDeadlineTimer deadline(10000);
    while (m_daemon > 0 && !answers()) {
        if (waitForExit(m_daemon, 50) || deadline.hasExpired())
            return "pulseaudio did not answer; its log ends:\n" +
                   TestEnvironment::readFile(log).right(800);
    }
    // A recording that never ends keeps the sink in short blocks, so each capture starts at once.
    m_keeper = spawnQt({"parec", kMonitor, "--latency-msec=20"}, "/dev/null", "/dev/null");
    if (m_daemon <= 0 || m_keeper <= 0)
        return "cannot start pulseaudio or parec (scripts/install-deps installs them)";
    const auto listed = [] {
        for (const QAudioDevice &device : QMediaDevices::audioOutputs())
            if (device.id() == kSinkName) return true;
        return false;
    };
    if (!QTest::qWaitFor(listed, 5000))
        return "Qt Multimedia does not see the test sink: was it asked for audio devices before "
               "the sound server started?";
    return {};
}

bool SoundServer::startCapture() {
    if (m_recorder > 0) return false;
    m_capture = QStringLiteral("%1/capture-%2.raw").arg(m_folder).arg(++m_captureCount);
    m_recorder = spawnQt(
        {"parec", kMonitor, "--format=s16le", "--rate=44100", "--channels=1", "--latency-msec=20"},
        m_capture, m_capture + ".log");
    // Data in the file means the recording runs.
    const QDeadlineTimer deadline(10000);
    while (m_recorder > 0 && QFileInfo(m_capture).size() == 0) {
        if (deadline.hasExpired() || waitForExit(m_recorder, 5)) stopProcess(m_recorder, SIGINT);
    }
    return m_recorder > 0;
}

QVector<float> SoundServer::stopCapture() {
    if (m_recorder <= 0) return {};
    const qint64 wanted = QFileInfo(m_capture).size() + kSampleRate;  // 16-bit: half a second
    (void)QTest::qWaitFor([&] { return QFileInfo(m_capture).size() >= wanted; }, 4000);
    stopProcess(m_recorder, SIGINT);
    const QByteArray bytes = TestEnvironment::readFile(m_capture);
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

int SoundServer::countSounds(const QVector<float> &samples) {
    const qsizetype minimumGap = qsizetype(0.15 * kSampleRate);
    int sounds = 0;
    qsizetype quiet = minimumGap;
    for (float sample : samples) {
        if (std::fabs(sample) <= 0.01)
            ++quiet;
        else
            sounds += std::exchange(quiet, 0) >= minimumGap;
    }
    return sounds;
}
