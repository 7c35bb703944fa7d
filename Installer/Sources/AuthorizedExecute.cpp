#include "AuthorizedExecute.h"

#include <sys/wait.h>

#include "AuthorizedExecute_p.h"
#include "KVLog.h"

namespace {
// What the elevation program answers for the rights themselves.
constexpr int kDismissedStatus = 126;
constexpr int kRefusedStatus = 127;
}  // namespace

int32_t AuthorizedExecute(const AuthorizationRef &reference, const QString &toolPath,
                          const QStringList &arguments) {
    const pid_t pid = AuthorizedExecutePrivate::start(reference.command, toolPath, arguments);
    if (pid < 0) {
        kvLog("AuthorizationExecuteWithPrivileges failed (%s)", toolPath.toUtf8().constData());
        return -pid;
    }
    const int status = AuthorizedExecutePrivate::wait(pid, toolPath, reference.granted);
    if (status == -1) {
        // A failed wait counts as success, as it always has.
        kvLog("no pid");
        return 0;
    }
    if (!WIFEXITED(status)) {
        kvLog("!WIFEXITED");
        return -1;
    }
    if (WEXITSTATUS(status) == kDismissedStatus) return errAuthorizationCanceled;
    if (WEXITSTATUS(status) == kRefusedStatus) return errAuthorizationDenied;
    if (WEXITSTATUS(status) != 0) {
        kvLog("WEXITSTATUS");
        return -1;
    }
    return 0;
}
