// libFuzzer target for the text helpers. The first byte picks the family; the
// rest is taken as UTF-16 units (so lone surrogates and U+0000 come up) or bytes.
#include <QGuiApplication>
#include <QTemporaryFile>
#include <cstring>

#include "StringExtensions.h"

using namespace StringExtensions;

namespace {
template <typename... Results>
void discard(const Results &...) {}

void escapes(const QString &s) {
    const QString chars = s.left(3), rest = s.mid(3);
    QString m = rest;
    discard(expandEscapedControlCharactersIncludingBackslash(m, chars.size() % 2),
            stringByEscapingCharacters(rest, chars),
            stringByExpandingEscapedCharacters(rest, chars),
            stringByExpandingEscapedCharacters(rest, KVEscapeCharacters),
            stringWithObjCString(rest), withLineSeparator(rest, chars),
            stringWithPercentEscapes(rest), stringByTrimmingWhitespace(rest), asSingleLine(rest),
            MD5String(rest), xmlElementForKey(rest, chars),
            componentsSeparatedByCharacter(rest, chars.isEmpty() ? QChar(u',') : chars[0]),
            arrayOfLines(rest), numericValue(rest), booleanValue(rest), smartFloatValue(rest),
            caseInsensitiveNumericCompare(rest, chars), matchesWildcardPattern(rest, chars),
            matchesWildcardPattern(chars, rest));
}

void encodings(const QByteArray &bytes) {
    for (NSStringEncoding e : {NSUTF8StringEncoding, NSUnicodeStringEncoding,
                               NSMacOSRomanStringEncoding, NSISOLatin1StringEncoding,
                               NSUTF16LittleEndianStringEncoding, NSUTF32BigEndianStringEncoding})
        discard(stringWithData(bytes, e));
    static QTemporaryFile file;
    if (!file.isOpen() && !file.open()) return;
    file.resize(0), file.seek(0), file.write(bytes), file.flush();
    discard(stringWithBestEncodingFromFile(file.fileName()),
            explicitEncodingOfFile(file.fileName(), {}),
            stringWithMacRomanCString(bytes.constData(), int(bytes.size())));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    // The HTML reader wants a GUI application (for fonts); no display needed.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static QGuiApplication app(*argc, *argv);
    defineLigatures({"ffi", "fl"});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data + 1), qsizetype(size - 1));
    QString units(qsizetype(bytes.size() / 2), Qt::Uninitialized);
    std::memcpy(units.data(), bytes.constData(), units.size() * 2);
    if (data[0] % 3 == 0) escapes(units);
    if (data[0] % 3 == 1) encodings(bytes);
    if (data[0] % 3 == 2)
        discard(stringWithHTML(bytes), stringByExpandingHTMLEntities(QString::fromUtf8(bytes)));
    return 0;
}
