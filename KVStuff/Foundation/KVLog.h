// The system-log call: one line to standard error in the platform log format,
// "2026-11-21 09:15:02.123 Installer[4242:4243] message".
#pragma once

#include "KVFormat.h"

namespace KVLog {
// Writes the line with a single write() so lines of two threads never mix.
// A message longer than 16384 characters is cut there, and the line says
// how much was left out.
void writeLine(const QString &message);
// "2026-11-21 09:15:02.123 Installer[4242:4243] " for the calling thread, now.
QString linePrefix();
}  // namespace KVLog

template <typename... Args>
void kvLog(const QString &format, const Args &...args) {
    KVLog::writeLine(kvFormat(format, args...));
}
