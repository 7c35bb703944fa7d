// A system bus and polkitd with a rule answering pkexec for the unprivileged
// user with yes or no, for root; one at a time on the machine.
#pragma once

#include <sys/file.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QThread>

#include "Relaunch.h"
#include "Spawn.h"

class Polkit {
public:
    explicit Polkit(bool consent) : m_error(start(consent)) {}

    bool ok() const { return m_error.isEmpty(); }
    QString error() const { return m_error; }

    ~Polkit() {
        stopProcess(m_polkitd);
        if (!m_rule.isEmpty()) QFile::remove(m_rule);
        if (m_bus > 0) {
            stopProcess(m_bus);
            QFile::remove(kSocket), QFile::remove(kPidFile);
        }
        if (m_lock >= 0) close(m_lock);
    }

private:
    static inline const QString kSocket = "/run/dbus/system_bus_socket", kPidFile = "/run/dbus/pid";
    static inline const QString kPolkitd = "/usr/lib/polkit-1/polkitd";

    static bool polkitAnswers() {
        const QString name = "kvtest-polkit-probe";
        QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, name);
        const bool owned =
            bus.isConnected() && bus.interface()->isServiceRegistered("org.freedesktop.PolicyKit1");
        QDBusConnection::disconnectFromBus(name);
        return owned;
    }
    static void waitFor(const std::function<bool()> &done) {
        const QDeadlineTimer deadline(5000);
        while (!done() && !deadline.hasExpired()) QThread::msleep(20);
    }

    QString start(bool consent) {
        if (!Relaunch::isRoot()) return "the privileged path is tested from root";
        m_lock = open("/run/kvtest-polkit.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
        if (m_lock < 0 || flock(m_lock, LOCK_EX) != 0) return "cannot lock /run/kvtest-polkit.lock";
        if (!QFile::exists(kPolkitd) || !QFile::exists("/usr/bin/pkexec"))
            return "polkitd or pkexec missing: scripts/install-deps installs pkexec and polkitd";
        if (!QFile::exists(kSocket)) {
            // A pid file without a socket is a killed run's, and would stop the bus.
            QDir().mkpath("/run/dbus");
            QFile::remove(kPidFile);
            m_bus = spawn({"dbus-daemon", "--system", "--nofork"});
            waitFor([] { return QFile::exists(kSocket); });
            if (m_bus <= 0 || !QFile::exists(kSocket)) return "cannot start the system bus";
        }
        m_rule = QString("/etc/polkit-1/rules.d/49-kvtest-%1.rules").arg(getpid());
        const QString rule =
            "polkit.addRule(function(action, subject) {\n"
            "    if (action.id == \"org.freedesktop.policykit.exec\" && subject.user == \"%1\")\n"
            "        return polkit.Result.%2;\n});\n";
        if (!TestEnvironment::writeFile(
                m_rule, rule.arg(Relaunch::unprivilegedUser(), consent ? "YES" : "NO").toUtf8()))
            return "cannot write " + m_rule;
        // The machine's own polkitd reads the rule a little later.
        if (polkitAnswers())
            QThread::msleep(1500);
        else if ((m_polkitd = spawn({kPolkitd.toStdString(), "--no-debug"})) <= 0)
            return "cannot start polkitd";
        waitFor(polkitAnswers);
        return polkitAnswers() ? QString() : "polkitd does not answer on the system bus";
    }

    pid_t m_bus = 0, m_polkitd = 0;
    int m_lock = -1;
    QString m_rule, m_error;
};
