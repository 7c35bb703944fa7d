#include "KVFourCharCode.h"

OSType KVFourCharCode::fromString(const QString &text) {
    if (text.size() != 4) return 0;
    OSType code = 0;
    for (QChar c : text) {
        if (c.unicode() > 0xff) return 0;
        code = (code << 8) | c.unicode();
    }
    return code;
}

QString KVFourCharCode::toString(OSType code) {
    if (code == 0) return QStringLiteral("");
    QString text;
    for (int shift = 24; shift >= 0; shift -= 8) text += QChar(char16_t((code >> shift) & 0xff));
    return text;
}
