#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <spawn.h>
#include <vector>

#include "KVBundle.h"
#include "KVWorkspace.h"

extern char **environ;

bool KVWorkspace::openFile(const QString &path) {
    if (path.isEmpty() || !QFileInfo::exists(path)) return false;
    const auto bundle = path.endsWith(QLatin1String(".app")) ? KVBundle::bundleWithPath(path)
                                                             : std::nullopt;
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
