#include "Polkit.h"

#include <sys/file.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QDir>
#include <QProcess>
#include <QThread>

#include "Relaunch.h"
#include "Spawn.h"
#include "TestEnvironment.h"

namespace {
const QString kSocket = "/run/dbus/system_bus_socket", kPidFile = "/run/dbus/pid";
const QString kPolkitd = "/usr/lib/polkit-1/polkitd";

bool polkitAnswers() {
    const QString name = "kvtest-polkit-probe";
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, name);
    const bool owned =
        bus.isConnected() && bus.interface()->isServiceRegistered("org.freedesktop.PolicyKit1");
    QDBusConnection::disconnectFromBus(name);
    return owned;
}

void waitFor(const std::function<bool()> &done, int milliseconds) {
    const QDeadlineTimer deadline(milliseconds);
    while (!done() && !deadline.hasExpired()) QThread::msleep(20);
}
}  // namespace

Polkit::Polkit(bool consent) : m_error(start(consent)) {}

QString Polkit::start(bool consent) {
    if (!Relaunch::isRoot()) return "the privileged path is tested from root";
    // Another test process's teardown would stop the polkitd this one asks.
    m_lock = open("/run/kvtest-polkit.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (m_lock < 0 || flock(m_lock, LOCK_EX) != 0) return "cannot lock /run/kvtest-polkit.lock";
    if (!QFile::exists(kPolkitd) || !QFile::exists("/usr/bin/pkexec"))
        return "polkitd or pkexec missing: scripts/install-deps installs pkexec and polkitd";
    if (!QFile::exists(kSocket)) {
        // Without a socket no bus runs: a pid file is a killed run's and would stop a new bus.
        QDir().mkpath("/run/dbus");
        QFile::remove(kPidFile);
        QProcess daemon;
        daemon.start("dbus-daemon", {"--system", "--fork", "--print-pid"});
        if (!daemon.waitForFinished(10000) || daemon.exitCode() != 0)
            return "cannot start the system bus: " + daemon.readAllStandardError();
        m_bus = pid_t(daemon.readAllStandardOutput().trimmed().toInt());
    }
    m_rule = QString("/etc/polkit-1/rules.d/49-kvtest-%1.rules").arg(getpid());
    const QString rule =
        "polkit.addRule(function(action, subject) {\n"
        "    if (action.id == \"org.freedesktop.policykit.exec\" && subject.user == \"%1\")\n"
        "        return polkit.Result.%2;\n});\n";
    if (!TestEnvironment::writeFile(
            m_rule, rule.arg(Relaunch::unprivilegedUser(), consent ? "YES" : "NO").toUtf8()))
        return "cannot write " + m_rule;
    // A polkitd of the machine's own picks the rule up by itself, a little later.
    if (polkitAnswers())
        QThread::msleep(1500);
    else if ((m_polkitd = spawn({kPolkitd.toStdString(), "--no-debug"})) <= 0)
        return "cannot start polkitd";
    waitFor(polkitAnswers, 5000);
    return polkitAnswers() ? QString() : "polkitd does not answer on the system bus";
}

Polkit::~Polkit() {
    stopProcess(m_polkitd);
    if (!m_rule.isEmpty()) QFile::remove(m_rule);
    if (m_bus > 0) {
        // Not our child (it forked away): gone once its /proc entry is, or is a
        // zombie. Only then may the next owner start a bus, which this one's pid
        // file, removed at its exit, would stop.
        kill(m_bus, SIGTERM);
        const auto running = [this] {
            QFile stat(QString("/proc/%1/stat").arg(m_bus));
            return stat.open(QIODevice::ReadOnly) && !stat.readAll().contains(") Z ");
        };
        waitFor([&] { return !running(); }, 5000);
        if (running()) kill(m_bus, SIGKILL);
        QFile::remove(kSocket);
        QFile::remove(kPidFile);
    }
    if (m_lock >= 0) close(m_lock);
}
