// Running the install tool with administrator rights. The system's own
// dialog asks the user; on Linux that is pkexec (polkit), or the program
// KV_ELEVATION_COMMAND names, with the same contract: it runs the tool with
// the arguments as root and exits with the tool's status, or with 126 when
// the user dismissed the dialog and 127 when the rights were refused.
#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>

// Statuses of the rights request, in the classic numbering.
inline constexpr int32_t errAuthorizationDenied = -60005;
inline constexpr int32_t errAuthorizationCanceled = -60006;

struct AuthorizationRef {
    // The program that obtains the rights and then runs the tool.
    QString command;
    // Called on the waiting thread once the rights are granted and the tool
    // is running (the dialog is gone).
    std::function<void()> granted;
};

// Finds the elevation program; false when there is none.
bool AuthorizationCreate(AuthorizationRef *reference);

// Starts the tool with the arguments through the reference and waits for
// it. 0: the tool ran and exited with 0 (or the wait failed: "no pid");
// errAuthorizationCanceled / errAuthorizationDenied: the dialog was
// dismissed / the rights refused, the tool never ran; another non-zero
// status: the program could not be started; -1: the tool did not exit
// normally or exited with a non-zero status.
int32_t AuthorizedExecute(const AuthorizationRef &reference, const QString &toolPath,
                          const QStringList &arguments);
