// A real X server (Xvfb) with a real window manager (openbox), started once
// per test program, and real window processes on it.
#pragma once

#include <QProcess>
#include <memory>
#include <optional>

// An environment variable set or unset for the length of a scope.
class ScopedEnv {
public:
    ScopedEnv(const char *name, std::optional<QByteArray> value)
        : m_name(name),
          m_saved(qEnvironmentVariableIsSet(name) ? std::optional(qgetenv(name)) : std::nullopt) {
        value ? qputenv(name, *value) : qunsetenv(name);
    }
    ~ScopedEnv() { m_saved ? qputenv(m_name, *m_saved) : qunsetenv(m_name); }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    const char *m_name;
    std::optional<QByteArray> m_saved;
};

namespace XSession {
// Starts the servers once, for this process and its children alone; why they could not be.
QString start();
void stop();
QString display();

// What the process prints until the text, or in ten seconds.
QByteArray outputUntil(QProcess &process, const QByteArray &text);
// SIGTERM, then SIGKILL if it lingers.
void stop(std::unique_ptr<QProcess> &process);
// The program, its output merged into *output, once it printed the text; else nullptr.
std::unique_ptr<QProcess> startUntil(
    const QString &program, const QStringList &arguments, const QByteArray &text, QString *output,
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment());
// kvtest_window on the X server, once it shows its windows.
std::unique_ptr<QProcess> startWindowProgram(const QString &program, const QStringList &arguments,
                                             QString *error);
}  // namespace XSession
