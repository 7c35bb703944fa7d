// A real X server (Xvfb) with a real window manager (openbox) for the tests
// that need windows to be activated, started once per test program, and real
// window processes on it. Everything started here is stopped by process id.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <memory>
#include <optional>

// An environment variable set or unset for the length of a scope.
class ScopedEnv {
public:
    ScopedEnv(const char *name, std::optional<QByteArray> value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    const char *m_name;
    std::optional<QByteArray> m_saved;
};

namespace XSession {
// Starts the servers on the first call; from then on this process and every
// program it starts use their display alone. Why they could not be started,
// empty when they run.
QString start();
// Stops them and gives the environment back.
void stop();
// ":N"; empty before start().
QString display();

// What the process prints until the text, or in ten seconds.
QByteArray outputUntil(QProcess &process, const QByteArray &text);
// Ends a process the test started: SIGTERM, then SIGKILL if it lingers.
void stop(std::unique_ptr<QProcess> &process);
// Starts the window program (kvtest_window) on the X server with the
// arguments and waits until it has shown its windows ("ready"); nullptr, with
// its output in *error, when it did not get there.
std::unique_ptr<QProcess> startWindowProgram(const QString &program, const QStringList &arguments,
                                             QString *error);
}  // namespace XSession
