// Plain types the library's interfaces share with the platform it was first
// written for, so that callers on every system speak the same vocabulary.
#pragma once

#include <QtGlobal>
#include <cstdint>

using OSType = uint32_t;

// Identity of one running process. On Linux the high word is the start time in
// clock ticks since boot (low 32 bits) and the low word the pid, so a reused
// pid never names the earlier process.
struct ProcessSerialNumber {
    uint32_t highLongOfPSN = 0;
    uint32_t lowLongOfPSN = 0;

    friend bool operator==(const ProcessSerialNumber &, const ProcessSerialNumber &) = default;
};

// The "no process" serial number that starts a walk of the process list.
inline constexpr ProcessSerialNumber kNoProcess{0, 0};

inline constexpr qsizetype NSNotFound = -1;

enum NSComparisonResult : int {
    NSOrderedAscending = -1,
    NSOrderedSame = 0,
    NSOrderedDescending = 1
};
