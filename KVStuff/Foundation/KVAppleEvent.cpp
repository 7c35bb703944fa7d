#include "KVAppleEvent.h"

#include "KVAppleEvent_p.h"
#include "KVFourCharCode.h"

namespace {
// A zero byte cannot travel in a bus string, and a code of 0 is no code.
bool isSendable(OSType code) {
    for (int shift = 0; shift < 32; shift += 8)
        if (((code >> shift) & 0xff) == 0) return false;
    return true;
}
}  // namespace

int KVAppleEvent::send(pid_t pid, OSType eventClass, OSType eventID, const QString &directParameter,
                       int timeoutMilliseconds) {
    return send(pid, {}, eventClass, eventID, directParameter, timeoutMilliseconds);
}

int KVAppleEvent::send(pid_t pid, const std::function<bool()> &isThatProcess, OSType eventClass,
                       OSType eventID, const QString &directParameter, int timeoutMilliseconds) {
    if (!isSendable(eventClass) || !isSendable(eventID) || timeoutMilliseconds < 0) return paramErr;
    if (pid <= 0 || (isThatProcess && !isThatProcess())) return procNotFound;
    return KVAppleEventPlatform::send(pid, isThatProcess, KVFourCharCode::toString(eventClass),
                                      KVFourCharCode::toString(eventID), directParameter,
                                      timeoutMilliseconds);
}
