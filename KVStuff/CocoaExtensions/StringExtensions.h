// String helpers of the library: trimming, lines, escapes, number parsing,
// digests, encodings of text files and HTML, code points, virtual characters
// and emoji, wildcard and regular-expression matching.
//
// Every function works on UTF-16 units, indexed as QString indexes them. A
// function that finds nothing to change returns its receiver itself: the same
// implicitly shared data, not a copy. A null QString stands for "no string".
// Functions that take a QString & change it in place.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>

#include "KVCompatibility.h"

using UTF32Char = uint32_t;

// A text encoding, held by the name of its ICU converter. The default value
// is no encoding (0 in the original interface); any name ICU knows is one.
class NSStringEncoding {
public:
    NSStringEncoding() = default;
    // Canonical ICU name of the converter for the given alias ("utf-8",
    // "latin1", "macintosh", ...); no encoding when ICU knows no such name.
    static NSStringEncoding named(const char *alias);
    // The same, accepting IANA charset names only (as HTML declares them).
    static NSStringEncoding fromIANAName(const QByteArray &name);

    bool isValid() const { return !m_name.isEmpty(); }
    const QByteArray &name() const { return m_name; }
    friend bool operator==(const NSStringEncoding &, const NSStringEncoding &) = default;

private:
    QByteArray m_name;
};

extern const NSStringEncoding NSUTF8StringEncoding;
extern const NSStringEncoding NSASCIIStringEncoding;
extern const NSStringEncoding NSISOLatin1StringEncoding;
extern const NSStringEncoding NSMacOSRomanStringEncoding;
extern const NSStringEncoding NSUnicodeStringEncoding;  // UTF-16, big-endian without a mark
extern const NSStringEncoding NSUTF16BigEndianStringEncoding;
extern const NSStringEncoding NSUTF16LittleEndianStringEncoding;
extern const NSStringEncoding NSUTF32BigEndianStringEncoding;
extern const NSStringEncoding NSUTF32LittleEndianStringEncoding;

// Line feed, carriage return, tab and backslash. stringByExpandingEscapedCharacters
// recognises this very string (its data), not its content.
extern const QString KVEscapeCharacters;

namespace StringExtensions {

// ---- Trimming, lines and splitting ----

// Every unit below 33 and U+00A0 trimmed from both ends.
QString stringByTrimmingWhitespace(const QString &s);
// A copy with Unicode white space and line ends trimmed.
QString trimWhitespace(const QString &s);
// Control and format characters become spaces, then the ends are trimmed.
QString asSingleLine(const QString &s);
QStringList arrayOfLines(const QString &s);
// CR LF, then CR, then LF replaced by the separator, in that fixed order.
QString withLineSeparator(const QString &s, const QString &separator);
QStringList componentsSeparatedByCharacter(const QString &s, QChar c);
QString repeated(const QString &s, int n);

// ---- Conversions ----

// The body of the source text of a string literal, its escapes expanded.
QString stringWithObjCString(const QString &literal);
// Its argument, unchanged.
QString objCStringWithString(const QString &s);
QString stringWithOSType(OSType type);
QString stringWithMacRomanCString(const char *bytes, int length);
QString stringWithMacRomanCString(const char *bytes);
QString stringWithPercentEscapes(const QString &s);
QString stringWithExpandedPercentEscapes(const QString &s);

// ---- Numbers and truth values ----

long numericValue(const QString &s);
bool booleanValue(const QString &s);
bool isIntegerNumber(const QString &s);
float smartFloatValue(const QString &s);
// The leading integer, as the platform's intValue reads it.
int intValue(const QString &s);
// The leading decimal number, as the platform's floatValue reads it.
float floatValue(const QString &s);

// ---- Digest, XML and comparison ----

// MD5 of the UTF-8 bytes up to the first zero byte, 32 lowercase hex digits.
QString MD5String(const QString &s);
QString xmlElementForKey(const QString &s, const QString &key);
NSComparisonResult numericCompare(const QString &s, const QString &other);
NSComparisonResult caseInsensitiveNumericCompare(const QString &s, const QString &other);
NSComparisonResult casdInsensitiveNumericCompare(const QString &s, const QString &other);

// ---- Backslash escapes ----

QString stringByEscapingCharacters(const QString &s, const QString &characters);
QString stringByExpandingEscapedCharacters(const QString &s, const QString &characters);
QString stringByExpandingEscapedControlCharactersIncludingBackslash(const QString &s,
                                                                    bool includingBackslash);
QString stringByExpandingEscapedControlCharacters(const QString &s);
// In place; true when anything changed.
bool expandEscapedControlCharactersIncludingBackslash(QString &s, bool includingBackslash);

// ---- Files ----

// Appends the text in the encoding; false when the file cannot be opened or
// created, the text has no form in the encoding, or not all of it was
// written (the file is then cut back to its former end).
bool appendToFile(const QString &s, const QString &path, const NSStringEncoding &encoding);

// ---- Encodings of text files and HTML ----

// The encoding a byte-order mark announces, else the default.
NSStringEncoding explicitEncodingOfFile(const QString &path,
                                        const NSStringEncoding &defaultEncoding);
// The text of a file of unknown encoding; null when it cannot be read.
QString stringWithBestEncodingFromFile(const QString &path);
// How much the first 1,000 units look like real text; NaN for "".
float reasonableTextFactor(const QString &s, const QString &label);
// HTML data decoded in the character set its meta tag declares.
QString stringWithHTML(const QByteArray &data);
// The plain text of the string read as HTML: tags dropped, entities expanded.
QString stringByExpandingHTMLEntities(const QString &s);
// The data decoded strictly; null when it is not valid in the encoding.
QString stringWithData(const QByteArray &data, const NSStringEncoding &encoding);

// ---- Code points, virtual characters and emoji ----

unsigned numberOfUnicodeCharacters(const QString &s);
UTF32Char longCharacterAtIndex(const QString &s, int i);
UTF32Char UTF32Character(const QString &s);
// The text a code point or virtual character stands for; U+0000 is a
// one-unit string. stringWithUTF32Character is the same.
QString initWithUTF32Character(UTF32Char c);
QString stringWithUTF32Character(UTF32Char c);
// Once per code point; a high surrogate without its partner is dropped
// together with the unit that follows it.
void forUTF32Characters(const QString &s, const std::function<void(UTF32Char)> &block);
QString UTF16SequenceString(const QString &s);
QString UTF32SequenceString(const QString &s);
bool isVirtualCharacter(UTF32Char c);
// The zero-terminated code points of a flag, ZWJ or keycap value; null for
// any other. A flag's list lives in a per-thread buffer that the next call
// overwrites.
const UTF32Char *utf32CharactersForVirtualCharacter(UTF32Char c);
void defineLigatures(const QStringList &ligatures);
// The text of a key of the current keyboard layout. The key code is the
// platform's virtual key code (kVK_ANSI_A = 0), the modifier state the key
// translation's: command 0x01, shift 0x02, caps lock 0x04, option 0x08,
// control 0x10. "<ERR>" without a display or a symbol.
QString stringWithVirtualKeyCode(uint16_t keyCode, uint32_t modifiers);
QString emojiStringWithSkinColor(const QString &s, int colour);

// ---- Pattern matching ----

bool matchesWildcardPattern(const QString &s, const QString &pattern);
QString stringByReplacingOccurrencesOfRegexPattern(const QString &s, const QString &pattern,
                                                   const QString &templ);
void replaceOccurrencesOfRegexPattern(QString &s, const QString &pattern, const QString &templ);

}  // namespace StringExtensions
