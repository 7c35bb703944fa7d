#include "Polkit.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>
#include <csignal>

#include "Relaunch.h"
#include "TestEnvironment.h"

extern char **environ;

namespace {
const QString kSocket = QStringLiteral("/run/dbus/system_bus_socket");
const QString kPolkitd = QStringLiteral("/usr/lib/polkit-1/polkitd");

bool polkitAnswers() {
    const QString name = QStringLiteral("kvtest-polkit-probe");
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, name);
    const bool owned =
        bus.isConnected() && bus.interface()->isServiceRegistered("org.freedesktop.PolicyKit1");
    QDBusConnection::disconnectFromBus(name);
    return owned;
}

void stopProcess(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}
}  // namespace

Polkit::Polkit(bool consent) {
    if (!Relaunch::isRoot()) {
        fail("the privileged path is tested from root");
        return;
    }
    // One test process at a time owns the servers and the rule: another's
    // teardown would stop the polkitd this one asks.
    m_lock = open("/run/kvtest-polkit.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (m_lock < 0 || flock(m_lock, LOCK_EX) != 0) {
        fail("cannot lock /run/kvtest-polkit.lock");
        return;
    }
    if (!QFileInfo::exists(kPolkitd) || !QFileInfo::exists("/usr/bin/pkexec")) {
        fail("polkitd or pkexec missing: scripts/install-deps installs pkexec and polkitd");
        return;
    }
    if (!QFileInfo::exists(kSocket)) {
        QDir().mkpath("/run/dbus");
        QProcess daemon;
        daemon.start("dbus-daemon", {"--system", "--fork", "--print-pid"});
        if (!daemon.waitForFinished(10000) || daemon.exitCode() != 0) {
            fail("cannot start the system bus: " + daemon.readAllStandardError());
            return;
        }
        m_bus = pid_t(daemon.readAllStandardOutput().trimmed().toInt());
    }
    m_rule = QString("/etc/polkit-1/rules.d/49-kvtest-%1.rules").arg(getpid());
    const QByteArray answer = consent ? "YES" : "NO";
    if (!TestEnvironment::writeFile(m_rule,
                                    "polkit.addRule(function(action, subject) {\n"
                                    "    if (action.id == \"org.freedesktop.policykit.exec\" &&\n"
                                    "        subject.user == \"" +
                                        Relaunch::unprivilegedUser().toUtf8() +
                                        "\")\n"
                                        "        return polkit.Result." +
                                        answer + ";\n});\n")) {
        fail("cannot write " + m_rule);
        return;
    }
    // A polkitd of the machine's own picks the rule up by itself, a little
    // later; one started here reads it at once.
    if (!polkitAnswers()) {
        const QByteArray program = QFile::encodeName(kPolkitd);
        char *argv[] = {const_cast<char *>(program.constData()), const_cast<char *>("--no-debug"),
                        nullptr};
        if (posix_spawn(&m_polkitd, argv[0], nullptr, nullptr, argv, environ) != 0) {
            fail("cannot start polkitd");
            return;
        }
    } else {
        QThread::msleep(1500);
    }
    for (int i = 0; i < 100 && !polkitAnswers(); ++i) QThread::msleep(50);
    if (!polkitAnswers()) {
        fail("polkitd does not answer on the system bus");
        return;
    }
    m_ok = true;
}

Polkit::~Polkit() {
    stopProcess(m_polkitd);
    if (!m_rule.isEmpty()) QFile::remove(m_rule);
    if (m_bus > 0) {
        stopProcess(m_bus);
        QFile::remove(kSocket);
        QFile::remove("/run/dbus/pid");
    }
    if (m_lock >= 0) close(m_lock);
}

bool Polkit::fail(const QString &why) {
    m_error = why;
    m_ok = false;
    return false;
}
