// What every benchmark measures with: a clock in nanoseconds and the median.
// Plain C++, so that the bare helper programs can use it too.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <vector>

// Safe in a signal handler: clock_gettime is.
inline int64_t nanoseconds(clockid_t clock = CLOCK_MONOTONIC) {
    timespec t;
    clock_gettime(clock, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}
