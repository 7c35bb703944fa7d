// What the portable event code asks of the operating system's half, and the
// names both halves agree on.
#pragma once

#include <sys/types.h>

#include <QString>
#include <functional>

class KVAppleEventManager;

namespace KVAppleEventPlatform {
// Arguments are checked already: pid > 0, class and ID of four non-zero
// characters each, time-out >= 0 (0: do not wait for the reply). An empty
// isThatProcess accepts whichever process has the pid.
int send(pid_t pid, const std::function<bool()> &isThatProcess, const QString &eventClass,
         const QString &eventID, const QString &directParameter, int timeoutMilliseconds);

// Makes events for this process arrive at the manager, on its thread. False,
// with the reason, when they cannot (no session bus, name not granted).
bool startReceiving(KVAppleEventManager *manager, QString *reason);
}  // namespace KVAppleEventPlatform
