#include "Polkit.h"

#include <sys/file.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QThread>

#include "Relaunch.h"
#include "Spawn.h"
#include "TestEnvironment.h"

namespace {
const QString kSocket = QStringLiteral("/run/dbus/system_bus_socket");
const QString kPolkitd = QStringLiteral("/usr/lib/polkit-1/polkitd");
const QString kPidFile = QStringLiteral("/run/dbus/pid");

bool polkitAnswers() {
    const QString name = QStringLiteral("kvtest-polkit-probe");
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, name);
    const bool owned =
        bus.isConnected() && bus.interface()->isServiceRegistered("org.freedesktop.PolicyKit1");
    QDBusConnection::disconnectFromBus(name);
    return owned;
}
}  // namespace

Polkit::Polkit(bool consent) {
    m_error = start(consent);
    m_ok = m_error.isEmpty();
}

QString Polkit::start(bool consent) {
    if (!Relaunch::isRoot()) return "the privileged path is tested from root";
    // One test process at a time owns the servers and the rule: another's
    // teardown would stop the polkitd this one asks.
    m_lock = open("/run/kvtest-polkit.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (m_lock < 0 || flock(m_lock, LOCK_EX) != 0) return "cannot lock /run/kvtest-polkit.lock";
    if (!QFile::exists(kPolkitd) || !QFile::exists("/usr/bin/pkexec"))
        return "polkitd or pkexec missing: scripts/install-deps installs pkexec and polkitd";
    if (!QFile::exists(kSocket)) {
        QDir().mkpath("/run/dbus");
        // Without a socket no bus runs: a pid file is a killed run's, and would
        // stop the new bus from starting.
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
    // A polkitd of the machine's own picks the rule up by itself, a little
    // later; one started here reads it at once.
    if (!polkitAnswers()) {
        m_polkitd = spawn({kPolkitd.toStdString(), "--no-debug"});
        if (m_polkitd <= 0) return "cannot start polkitd";
    } else {
        QThread::msleep(1500);
    }
    const QDeadlineTimer deadline(5000);
    while (!polkitAnswers() && !deadline.hasExpired()) QThread::msleep(50);
    return polkitAnswers() ? QString() : "polkitd does not answer on the system bus";
}

Polkit::~Polkit() {
    stopProcess(m_polkitd);
    if (!m_rule.isEmpty()) QFile::remove(m_rule);
    if (m_bus > 0) {
        // Not our child (it forked away), so no reaping: it is gone once its
        // /proc entry is, or is a zombie. Only then may the next owner start a
        // bus, which the pid file of this one, removed at its exit, would stop.
        kill(m_bus, SIGTERM);
        const auto running = [this] {
            QFile stat(QString("/proc/%1/stat").arg(m_bus));
            return stat.open(QIODevice::ReadOnly) && !stat.readAll().contains(") Z ");
        };
        const QDeadlineTimer deadline(5000);
        while (running() && !deadline.hasExpired()) QThread::msleep(10);
        if (running()) kill(m_bus, SIGKILL);
        QFile::remove(kSocket);
        QFile::remove(kPidFile);
    }
    if (m_lock >= 0) close(m_lock);
}
