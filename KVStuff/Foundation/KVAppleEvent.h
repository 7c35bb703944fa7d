// Sending an event to another running program, addressed by its process id.
// The receiver answers through KVAppleEventManager; on Linux the event goes
// over the D-Bus session bus to the name "org.velmora.events.p<PID>".
//
// send() may be called from any thread. It logs only failures of the bus that
// no code below describes; the caller logs the code it gets back.
#pragma once

#include <sys/types.h>

#include <QString>
#include <functional>

#include "KVCompatibility.h"

namespace KVAppleEvent {
// The classic values, so that log lines read the way they always have.
inline constexpr int noErr = 0;
// An event class or ID with a zero byte, or a negative time-out.
inline constexpr int paramErr = -50;
// pid <= 0, or no program with that pid receives events.
inline constexpr int procNotFound = -600;
// There is no session bus to send on.
inline constexpr int connectionInvalid = -609;
// The receiver has no handler for the class and ID (known only when waiting).
inline constexpr int errAEEventNotHandled = -1708;
// The receiver did not answer within the time-out, or went away before it did.
inline constexpr int errAETimeout = -1712;
// Any other failure; the bus's own error is logged.
inline constexpr int errAEEventFailed = -10000;

// timeoutMilliseconds 0: returns as soon as the event is on its way (only that
// the receiver exists is checked); > 0: waits up to that long for the
// receiver's handler to have run. Handlers run on the receiver's main thread,
// so an event the main thread sends to its own process with waiting times out
// (its handler runs afterwards).
int send(pid_t pid, OSType eventClass, OSType eventID, const QString &directParameter,
         int timeoutMilliseconds);
// As above, for one process rather than whichever now has the pid: the
// receiver's bus connection is found first, then isThatProcess must accept
// the pid, and the event goes to that connection alone. A pid that another
// program took meanwhile answers procNotFound and receives nothing.
int send(pid_t pid, const std::function<bool()> &isThatProcess, OSType eventClass, OSType eventID,
         const QString &directParameter, int timeoutMilliseconds);
}  // namespace KVAppleEvent
