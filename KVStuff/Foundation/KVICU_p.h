// Qt strings to ICU's and back, for the date formatting both kits do; both
// are UTF-16, so the conversion is a copy.
#pragma once

#include <unicode/unistr.h>

#include <QString>

inline icu::UnicodeString toUnicodeString(const QString &text) {
    return icu::UnicodeString(reinterpret_cast<const char16_t *>(text.utf16()),
                              int32_t(text.size()));
}

inline QString fromUnicodeString(const icu::UnicodeString &text) {
    return QString(reinterpret_cast<const QChar *>(text.getBuffer()), text.length());
}
