#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "AuthorizedExecute.h"
#include "AuthorizedExecute_p.h"

extern char **environ;

bool AuthorizationCreate(AuthorizationRef *reference) {
    QString command = QString::fromLocal8Bit(qgetenv("KV_ELEVATION_COMMAND"));
    if (command.isEmpty()) command = QStandardPaths::findExecutable(QStringLiteral("pkexec"));
    if (command.isEmpty()) return false;
    reference->command = command;
    return true;
}

pid_t AuthorizedExecutePrivate::start(const QString &command, const QString &toolPath,
                                      const QStringList &arguments) {
    std::vector<QByteArray> words{QFile::encodeName(command), QFile::encodeName(toolPath)};
    for (const QString &argument : arguments) words.push_back(QFile::encodeName(argument));
    std::vector<char *> argv;
    for (QByteArray &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    // An unattended installer ignores a broken pipe; the tool gets the
    // default back, as any program expects.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &pipe);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, argv[0], nullptr, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    return error == 0 ? pid : -error;
}

int AuthorizedExecutePrivate::wait(pid_t pid, const QString &toolPath,
                                   const std::function<void()> &granted) {
    // The elevation program runs the tool in its own process once the rights
    // are granted: the process then carries the tool's name.
    const QByteArray comm = "/proc/" + QByteArray::number(pid) + "/comm";
    const QByteArray toolName = QFile::encodeName(QFileInfo(toolPath).fileName()).left(15);
    bool told = !granted;
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(pid, &status, told ? 0 : WNOHANG);
        if (done == pid) return status;
        if (done < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        QFile name(QString::fromLatin1(comm));
        if (name.open(QIODevice::ReadOnly) && name.readAll().trimmed() == toolName) {
            told = true;
            granted();
            continue;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}
