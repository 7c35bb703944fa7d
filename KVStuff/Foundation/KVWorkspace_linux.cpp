// Before any Qt header: GIO names a struct member "signals", which Qt
// defines as a macro.
#include <fcntl.h>
#include <gio/gio.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

#include "KVBundle.h"
#include "KVSpawnSignals_p.h"
#include "KVWorkspace.h"

extern char **environ;

namespace {

// Starts the application as the desktop would: in a session of its own,
// from the home folder, with nothing of the opener's open files (standard
// streams on /dev/null) nor of its signal settings, in the user's
// environment. It stays this process's child while both run, so that it can
// tell who started it, and is reaped the moment it ends.
bool startApplication(const QByteArray &executable) {
    QByteArray home = QFile::encodeName(QDir::homePath());
    if (!QFileInfo(QDir::homePath()).isDir()) home = "/";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawn_file_actions_addchdir_np(&actions, home.constData());
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    kvSetDefaultSignals(&attributes, POSIX_SPAWN_SETSID);
    std::vector<char *> argv{const_cast<char *>(executable.constData()), nullptr};
    pid_t pid = 0;
    const int result =
        posix_spawn(&pid, executable.constData(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (result != 0) return false;
    std::thread([pid] {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }).detach();
    return true;
}

}  // namespace

bool KVWorkspace::openFile(const QString &path) {
    if (path.isEmpty() || !QFileInfo::exists(path)) return false;
    const auto bundle =
        path.endsWith(QLatin1String(".app")) ? KVBundle::bundleWithPath(path) : std::nullopt;
    if (!bundle) return QDesktopServices::openUrl(QUrl::fromLocalFile(path));
    const QByteArray executable = QFile::encodeName(bundle->executablePath());
    return !executable.isEmpty() && startApplication(executable);
}

bool KVWorkspace::moveToTrash(const QString &path) {
    if (path.isEmpty()) return false;
    // GIO makes $XDG_DATA_HOME/Trash and any missing parent (mode 0700)
    // itself, so root, whose home may lack ~/.local/share, can trash too.
    // It reads $XDG_DATA_HOME once per process.
    GFile *file = g_file_new_for_path(QFile::encodeName(path).constData());
    GError *error = nullptr;
    const bool trashed = g_file_trash(file, nullptr, &error);
    g_clear_error(&error);
    g_object_unref(file);
    return trashed;
}

// File managers on Linux watch their folders through inotify; nobody needs telling.
void KVWorkspace::noteFileSystemChanged(const QString &) {}
