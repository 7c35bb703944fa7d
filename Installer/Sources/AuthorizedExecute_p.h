// What AuthorizedExecute needs from the operating system.
#pragma once

#include <sys/types.h>

#include <QString>
#include <QStringList>
#include <functional>

namespace AuthorizedExecutePrivate {
// Starts command with the tool and its arguments (no shell); returns the pid,
// or -errno when it could not be started.
pid_t start(const QString &command, const QString &toolPath, const QStringList &arguments);
// Waits for that process; calls granted once when the tool itself runs in it.
// Returns the wait status, or -1 when the wait failed.
int wait(pid_t pid, const QString &toolPath, const std::function<void()> &granted);
}  // namespace AuthorizedExecutePrivate
