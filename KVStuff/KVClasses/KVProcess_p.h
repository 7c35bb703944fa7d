// What the portable half of KVProcess asks of the operating system. Each
// system answers in its own KVProcess_<system> file; not part of the
// library's interface.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariantMap>
#include <optional>

#include "KVCompatibility.h"

namespace KVProcessPrivate {

struct ProcessInformation {
    QString name;  // never null
    OSType signature = 0;
};

// The current user's processes, in the system's order.
QList<ProcessSerialNumber> processList();
// Nothing for a process that is not in processList().
std::optional<ProcessSerialNumber> serialNumberForPID(pid_t pid);
std::optional<ProcessSerialNumber> currentSerialNumber();
std::optional<ProcessSerialNumber> frontSerialNumber();

// 0 when the process has ended.
pid_t pidForSerialNumber(const ProcessSerialNumber &psn);
std::optional<ProcessInformation> processInformation(const ProcessSerialNumber &psn);
// The bundle holding the process; a null string when unknown.
QString bundleLocation(const ProcessSerialNumber &psn);
QVariantMap informationDictionary(const ProcessSerialNumber &psn);
// The name the system shows for the process; a null string when it has none.
QString displayName(const ProcessSerialNumber &psn);

// Whether the item is an application package (a bundle the system would
// launch as an application).
bool isApplicationPackage(const QString &path);
// The raw 'vers' resource 1 of the item; a null array when there is none.
QByteArray versionResource(const QString &path);

// A handle on one running process while it is being quit: requests reach
// exactly that process (never a later one with its pid), and its end is
// waited for on the process itself.
class QuitHandle {
public:
    // pid: the one the serial number gave a moment ago, checked again here.
    QuitHandle(const ProcessSerialNumber &psn, pid_t pid);
    ~QuitHandle();
    QuitHandle(const QuitHandle &) = delete;
    QuitHandle &operator=(const QuitHandle &) = delete;

    // Whether the process was running when the handle was made.
    bool isValid() const { return m_pid > 0; }
    // Ask the process to end / end it. False only when the process is gone
    // (ESRCH); a refused request (EPERM) counts as sent, and the process
    // then simply does not end.
    bool terminate();
    bool forceTerminate();
    // Waits up to the time for the process to end, an unreaped zombie
    // included; whether it has.
    bool waitForExit(int milliseconds) const;

private:
    bool signal(int number);

    ProcessSerialNumber m_psn;
    pid_t m_pid = 0;
    int m_fd = -1;
};
// Lets a stopped process run again.
void wakeUp(pid_t pid);

}  // namespace KVProcessPrivate
