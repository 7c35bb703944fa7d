// What KVFileManager needs from the operating system.
#pragma once

#include <QString>

namespace KVFileManagerPlatform {
// The copy itself; the arguments have been checked by copyItemAtPath.
bool copyItem(const QString &source, const QString &destination);
}  // namespace KVFileManagerPlatform
