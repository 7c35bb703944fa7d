// Four-character codes: exactly four characters give a big-endian 32-bit
// code, anything else gives 0; a code prints as its four bytes.
#pragma once

#include <QString>

#include "KVCompatibility.h"

namespace KVFourCharCode {
OSType fromString(const QString &text);
QString toString(OSType code);
}  // namespace KVFourCharCode
