// libFuzzer target for the text helpers. The first byte picks the family; the
// rest is taken as UTF-16 units (so lone surrogates and U+0000 come up) or bytes.
#include <QGuiApplication>
#include <QTemporaryFile>
#include <cstdint>
#include <cstring>

#include "StringExtensions.h"

using namespace StringExtensions;

namespace {

QString units(const uint8_t *data, size_t size) {
    QString text(qsizetype(size / 2), Qt::Uninitialized);
    std::memcpy(text.data(), data, (size / 2) * 2);
    return text;
}

void escapes(const QString &s) {
    const QString chars = s.left(3), rest = s.mid(3);
    QString m = rest;
    (void)expandEscapedControlCharactersIncludingBackslash(m, chars.size() % 2);
    for (const QString &out :
         {stringByEscapingCharacters(rest, chars), stringByExpandingEscapedCharacters(rest, chars),
          stringByExpandingEscapedCharacters(rest, KVEscapeCharacters), stringWithObjCString(rest),
          withLineSeparator(rest, chars), stringWithPercentEscapes(rest),
          stringByTrimmingWhitespace(rest), asSingleLine(rest), MD5String(rest),
          xmlElementForKey(rest, chars)})
        (void)out;
    (void)componentsSeparatedByCharacter(rest, chars.isEmpty() ? QChar(u',') : chars[0]);
    (void)arrayOfLines(rest);
    (void)numericValue(rest);
    (void)booleanValue(rest);
    (void)smartFloatValue(rest);
    (void)caseInsensitiveNumericCompare(rest, chars);
    (void)matchesWildcardPattern(rest, chars);
    (void)matchesWildcardPattern(chars, rest);
}

void encodings(const QByteArray &bytes) {
    for (const NSStringEncoding *e :
         {&NSUTF8StringEncoding, &NSUnicodeStringEncoding, &NSMacOSRomanStringEncoding,
          &NSISOLatin1StringEncoding, &NSUTF16LittleEndianStringEncoding,
          &NSUTF32BigEndianStringEncoding})
        (void)stringWithData(bytes, *e);
    static QTemporaryFile file;
    if (!file.isOpen() && !file.open()) return;
    file.resize(0);
    file.seek(0);
    file.write(bytes);
    file.flush();
    (void)stringWithBestEncodingFromFile(file.fileName());
    (void)explicitEncodingOfFile(file.fileName(), {});
    (void)stringWithMacRomanCString(bytes.constData(), int(bytes.size()));
}

void html(const QByteArray &bytes) {
    (void)stringWithHTML(bytes);
    (void)stringByExpandingHTMLEntities(QString::fromUtf8(bytes));
}

void codePoints(const QString &s, const uint8_t *data, size_t size) {
    (void)numberOfUnicodeCharacters(s);
    (void)UTF32Character(s);
    for (int i = -1; i <= s.size(); ++i) (void)longCharacterAtIndex(s, i);
    (void)UTF16SequenceString(s);
    (void)UTF32SequenceString(s);
    for (int colour = -1; colour <= 7; ++colour) (void)emojiStringWithSkinColor(s, colour);
    for (size_t i = 0; i + 4 <= size; i += 4) {
        UTF32Char c;
        std::memcpy(&c, data + i, 4);
        (void)stringWithUTF32Character(c);
        (void)stringWithUTF32Character(0xA0000 + c % 0x20000);
        (void)isVirtualCharacter(c);
        if (const UTF32Char *p = utf32CharactersForVirtualCharacter(0xA0000 + c % 0x1100))
            while (*p) ++p;
    }
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
    const uint8_t family = data[0] % 4;
    const QByteArray bytes(reinterpret_cast<const char *>(data + 1), qsizetype(size - 1));
    if (family == 0) escapes(units(data + 1, size - 1));
    if (family == 1) encodings(bytes);
    if (family == 2) html(bytes);
    if (family == 3) codePoints(units(data + 1, size - 1), data + 1, size - 1);
    return 0;
}
