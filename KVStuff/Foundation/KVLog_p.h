// What the log needs from the operating system.
#pragma once

#include <QByteArray>
#include <QString>

namespace KVLogPlatform {
QString processName();
qint64 processId();
qint64 threadId();
// Writes all bytes to standard error, retrying short writes.
void writeToStandardError(const QByteArray &bytes);
}  // namespace KVLogPlatform
