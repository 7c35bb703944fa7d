// Before any Qt header: GIO names a struct member "signals", which Qt
// defines as a macro.
#include <gio/gio.h>
#include <spawn.h>

#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <vector>

#include "KVBundle.h"
#include "KVWorkspace.h"

extern char **environ;

bool KVWorkspace::openFile(const QString &path) {
    if (path.isEmpty() || !QFileInfo::exists(path)) return false;
    const auto bundle =
        path.endsWith(QLatin1String(".app")) ? KVBundle::bundleWithPath(path) : std::nullopt;
    if (!bundle) return QDesktopServices::openUrl(QUrl::fromLocalFile(path));

    // An application outlives whoever opened it: its own session, no shell.
    const QByteArray executable = QFile::encodeName(bundle->executablePath());
    if (executable.isEmpty()) return false;
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    std::vector<char *> argv{const_cast<char *>(executable.constData()), nullptr};
    pid_t pid = 0;
    const int result =
        posix_spawn(&pid, executable.constData(), nullptr, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    return result == 0;
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
