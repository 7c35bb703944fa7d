// What the portable half of KVProcess asks of the operating system. Each
// system answers in its own KVProcess_<system> file; not part of the
// library's interface.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QIcon>
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
QIcon iconForFile(const QString &path);

// Asks the process to end (SIGTERM) / ends it (SIGKILL). False when the
// request could not be delivered: the process is taken to be gone.
bool terminate(pid_t pid);
bool forceTerminate(pid_t pid);
// Lets a stopped process run again.
void wakeUp(pid_t pid);

}  // namespace KVProcessPrivate
