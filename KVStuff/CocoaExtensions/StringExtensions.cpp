#include "StringExtensions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unicode/uchar.h>
#include <unicode/ucnv.h>
#include <unistd.h>

#include <QCryptographicHash>
#include <QFile>
#include <QTextDocumentFragment>
#include <QUrl>
#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

#include "KVCLocale_p.h"
#include "KVFourCharCode.h"
#include "KVLog.h"
#include "KVRegularExpression.h"
#include "KVUtilities_p.h"
#include "StringExtensionsZWJ_p.h"

NSStringEncoding NSStringEncoding::named(const char *alias) {
    UErrorCode status = U_ZERO_ERROR;
    const char *name = ucnv_getAlias(alias, 0, &status);
    NSStringEncoding encoding;
    if (U_SUCCESS(status) && name) encoding.m_name = name;
    return encoding;
}

NSStringEncoding NSStringEncoding::fromIANAName(const QByteArray &ianaName) {
    UErrorCode status = U_ZERO_ERROR;
    const char *name = ucnv_getCanonicalName(ianaName.constData(), "IANA", &status);
    NSStringEncoding encoding;
    if (U_SUCCESS(status) && name) encoding.m_name = name;
    return encoding;
}

const NSStringEncoding NSUTF8StringEncoding = NSStringEncoding::named("UTF-8");
const NSStringEncoding NSASCIIStringEncoding = NSStringEncoding::named("US-ASCII");
const NSStringEncoding NSISOLatin1StringEncoding = NSStringEncoding::named("ISO-8859-1");
const NSStringEncoding NSMacOSRomanStringEncoding = NSStringEncoding::named("macintosh");
const NSStringEncoding NSUnicodeStringEncoding = NSStringEncoding::named("UTF-16");
const NSStringEncoding NSUTF16BigEndianStringEncoding = NSStringEncoding::named("UTF-16BE");
const NSStringEncoding NSUTF16LittleEndianStringEncoding = NSStringEncoding::named("UTF-16LE");
const NSStringEncoding NSUTF32BigEndianStringEncoding = NSStringEncoding::named("UTF-32BE");
const NSStringEncoding NSUTF32LittleEndianStringEncoding = NSStringEncoding::named("UTF-32LE");

const QString KVEscapeCharacters = QStringLiteral("\n\r\t\\");

using namespace StringExtensions;

namespace {

bool isTrimmedWhitespace(char16_t c) { return c < 33 || c == 0xA0; }

bool isHighSurrogate(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// A surrogate without its partner: such text has no UTF-8 form.
bool hasLoneSurrogate(QStringView text) {
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (isHighSurrogate(text[i].unicode()) && i + 1 < text.size() &&
            isLowSurrogate(text[i + 1].unicode()))
            ++i;
        else if (text[i].isSurrogate())
            return true;
    }
    return false;
}

UTF32Char combine(char16_t high, char16_t low) {
    return (UTF32Char(high) - 0xD800) * 0x400 + (UTF32Char(low) - 0xDC00) + 0x10000;
}

void appendCodePoint(QString &text, UTF32Char c) {
    if (c < 0x10000) {
        text += QChar(char16_t(c));
    } else {
        // Values beyond U+10FFFF keep the arithmetic of the pair, cut to 16 bits.
        const UTF32Char v = c - 0x10000;
        text += QChar(char16_t(0xD800 + (v >> 10)));
        text += QChar(char16_t(0xDC00 + (v & 0x3FF)));
    }
}

QString fromCodePoints(const UTF32Char *points) {
    QString text;
    for (; *points; ++points) appendCodePoint(text, *points);
    return text;
}

// The text with every occurrence replaced; false when there was none.
bool replaceAll(QString &text, QStringView target, QStringView replacement) {
    if (!text.contains(target)) return false;
    text.replace(target.toString(), replacement.toString());
    return true;
}

// ---- Encodings ----

struct ConverterDeleter {
    void operator()(UConverter *c) const { ucnv_close(c); }
};
using Converter = std::unique_ptr<UConverter, ConverterDeleter>;

// A converter that stops at the first byte sequence or character it cannot
// convert, so no text is ever decoded or encoded with substitutes.
Converter strictConverter(const NSStringEncoding &encoding) {
    if (!encoding.isValid()) return nullptr;
    UErrorCode status = U_ZERO_ERROR;
    Converter converter(ucnv_open(encoding.name().constData(), &status));
    if (U_FAILURE(status)) return nullptr;
    ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr,
                        &status);
    ucnv_setFromUCallBack(converter.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr,
                          &status);
    return U_SUCCESS(status) ? std::move(converter) : nullptr;
}

// The byte-order marks of the encodings that may start with one, which a
// decoder of that very encoding skips.
struct ByteOrderMark {
    const NSStringEncoding *encoding;
    QByteArrayView bytes;
};
const std::array<ByteOrderMark, 5> kByteOrderMarks{{
    {&NSUTF32BigEndianStringEncoding, QByteArrayView("\x00\x00\xFE\xFF", 4)},
    {&NSUTF32LittleEndianStringEncoding, QByteArrayView("\xFF\xFE\x00\x00", 4)},
    {&NSUTF8StringEncoding, QByteArrayView("\xEF\xBB\xBF", 3)},
    {&NSUTF16LittleEndianStringEncoding, QByteArrayView("\xFF\xFE", 2)},
    {&NSUTF16BigEndianStringEncoding, QByteArrayView("\xFE\xFF", 2)},
}};

qsizetype byteOrderMarkLength(QByteArrayView data, const NSStringEncoding &encoding) {
    for (const ByteOrderMark &mark : kByteOrderMarks)
        if (*mark.encoding == encoding && data.startsWith(mark.bytes)) return mark.bytes.size();
    return 0;
}

// Only bytes the file has count: a file of just FF FE is UTF-16, not UTF-32.
NSStringEncoding byteOrderMarkEncoding(QByteArrayView data) {
    for (const ByteOrderMark &mark : kByteOrderMarks)
        if (data.startsWith(mark.bytes)) return *mark.encoding;
    return {};
}

// Decodes up to `limit` bytes of the data (all of them when the limit is not
// smaller), strictly. A cut inside a character is no error: the decoder is
// told more may follow. Null when the bytes are not valid in the encoding.
QString decode(QByteArrayView data, const NSStringEncoding &encoding,
               qsizetype limit = std::numeric_limits<qsizetype>::max()) {
    data = data.sliced(byteOrderMarkLength(data, encoding));
    const bool whole = limit >= data.size();
    if (!whole) data = data.first(limit);
    // Latin-1 maps every byte to the unit of the same value; Qt does that
    // in bulk.
    if (encoding == NSISOLatin1StringEncoding) return QString::fromLatin1(data);
    Converter converter = strictConverter(encoding);
    if (!converter) return {};
    QString text(data.size() + 16, Qt::Uninitialized);
    const char *source = data.data();
    const char *const sourceEnd = source + data.size();
    qsizetype written = 0;
    for (;;) {
        auto *begin = reinterpret_cast<UChar *>(text.data());
        UChar *target = begin + written;
        UErrorCode status = U_ZERO_ERROR;
        ucnv_toUnicode(converter.get(), &target, begin + text.size(), &source, sourceEnd, nullptr,
                       whole, &status);
        written = target - begin;
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            text.resize(text.size() * 2);
            continue;
        }
        if (U_FAILURE(status)) return {};
        break;
    }
    text.truncate(written);
    // Wide encodings give fewer units than bytes: the spare room goes back.
    if (written < text.capacity() / 2) text.squeeze();
    return text.isNull() ? QStringLiteral("") : text;
}

bool isRegularFile(const QString &path) {
    struct stat info;
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 && S_ISREG(info.st_mode);
}

// The whole file; false for anything but a readable regular file, so a FIFO
// never blocks and a device never streams forever.
bool readRegularFile(const QString &path, QByteArray *data) {
    if (!isRegularFile(path)) return false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) return false;
    *data = file.readAll();
    return file.error() == QFileDevice::NoError;
}

bool writeAll(int fd, const QByteArray &bytes) {
    const char *p = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, size_t(left));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= n;
    }
    return true;
}

// Opens for writing without blocking on a FIFO that has no reader.
int openForWriting(const QByteArray &path) {
    const int fd = ::open(path.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

QByteArray encode(const QString &text, const NSStringEncoding &encoding, bool *ok) {
    *ok = false;
    Converter converter = strictConverter(encoding);
    if (!converter) return {};
    UErrorCode status = U_ZERO_ERROR;
    const auto *source = reinterpret_cast<const UChar *>(text.constData());
    const int32_t needed =
        ucnv_fromUChars(converter.get(), nullptr, 0, source, int32_t(text.size()), &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return {};
    QByteArray bytes(needed, Qt::Uninitialized);
    status = U_ZERO_ERROR;
    ucnv_resetFromUnicode(converter.get());
    ucnv_fromUChars(converter.get(), bytes.data(), needed, source, int32_t(text.size()), &status);
    *ok = U_SUCCESS(status) || status == U_STRING_NOT_TERMINATED_WARNING;
    return bytes;
}

// ---- Numbers ----

// The leading run a number parser reads: optional white space and sign,
// digits, and for decimals a fraction and an exponent.
QByteArray numberPrefix(const QString &s, bool decimal) {
    const QByteArray bytes = s.toUtf8();
    qsizetype i = 0;
    while (i < bytes.size() && std::isspace(uchar(bytes[i]))) ++i;
    const qsizetype start = i;
    auto digits = [&] {
        const qsizetype from = i;
        while (i < bytes.size() && std::isdigit(uchar(bytes[i]))) ++i;
        return i - from;
    };
    if (i < bytes.size() && (bytes[i] == '+' || bytes[i] == '-')) ++i;
    qsizetype mantissa = digits();
    if (decimal) {
        if (i < bytes.size() && bytes[i] == '.') {
            ++i;
            mantissa += digits();
        }
        if (mantissa > 0 && i < bytes.size() && (bytes[i] == 'e' || bytes[i] == 'E')) {
            const qsizetype mark = i++;
            if (i < bytes.size() && (bytes[i] == '+' || bytes[i] == '-')) ++i;
            if (digits() == 0) i = mark;
        }
    }
    return mantissa > 0 ? bytes.mid(start, i - start) : QByteArray();
}

// ---- Virtual characters ----

constexpr UTF32Char kFlagFirst = 0xA0000, kFlagLast = 0xA02A3;
constexpr UTF32Char kZWJFirst = 0xA0300, kZWJLast = 0xA03DD;
constexpr UTF32Char kKeycapFirst = 0xA1000, kKeycapLast = 0xA100B;
constexpr UTF32Char kLigatureFirst = 0xB0000, kLigatureEnd = 0xBFFFF;
constexpr UTF32Char kRegionalIndicatorA = 0x1F1E6;

constexpr UTF32Char KEYCAP_SEQUENCES[12][3] = {
    {0x23, 0x20E3, 0}, {0x2A, 0x20E3, 0}, {0x30, 0x20E3, 0}, {0x31, 0x20E3, 0},
    {0x32, 0x20E3, 0}, {0x33, 0x20E3, 0}, {0x34, 0x20E3, 0}, {0x35, 0x20E3, 0},
    {0x36, 0x20E3, 0}, {0x37, 0x20E3, 0}, {0x38, 0x20E3, 0}, {0x39, 0x20E3, 0},
};

// Colours 1 and 2 share the first modifier: it covers two skin types.
constexpr UTF32Char kSkinColours[7] = {0, 0x1F3FB, 0x1F3FB, 0x1F3FC, 0x1F3FD, 0x1F3FE, 0x1F3FF};

std::mutex s_ligatureMutex;
QStringList s_ligatureArray;

}  // namespace

// ---- Trimming, lines and splitting ----

QString StringExtensions::stringByTrimmingWhitespace(const QString &s) {
    const auto *units = reinterpret_cast<const char16_t *>(s.constData());
    const qsizetype length = s.size();
    qsizetype first = 0;
    while (first < length && isTrimmedWhitespace(units[first])) ++first;
    if (first == length) return length == 0 ? s : QStringLiteral("");
    qsizetype last = length - 1;
    while (isTrimmedWhitespace(units[last])) --last;
    if (first == 0 && last == length - 1) return s;
    return s.mid(first, last - first + 1);
}

QString StringExtensions::trimWhitespace(const QString &s) {
    // Unicode white space and line ends, as the platform's trimming knows them.
    qsizetype first = 0, end = s.size();
    while (first < end && s[first].isSpace()) ++first;
    while (end > first && s[end - 1].isSpace()) --end;
    return s.mid(first, end - first);
}

QString StringExtensions::asSingleLine(const QString &s) {
    QString line = s;
    for (QChar &c : line) {
        const QChar::Category category = c.category();
        if (category == QChar::Other_Control || category == QChar::Other_Format) c = u' ';
    }
    return trimWhitespace(line);
}

QStringList StringExtensions::arrayOfLines(const QString &s) {
    for (const QString &separator : {QStringLiteral("\r\n"), QStringLiteral("\n")})
        if (s.contains(separator)) return s.split(separator);
    return s.split(u'\r');
}

QString StringExtensions::withLineSeparator(const QString &s, const QString &separator) {
    QString text = s;
    bool changed = false;
    for (QStringView target : {u"\r\n", u"\r", u"\n"})
        if (separator != target) changed |= replaceAll(text, target, separator);
    return changed ? text : s;
}

QStringList StringExtensions::componentsSeparatedByCharacter(const QString &s, QChar c) {
    QStringList components;
    components.reserve(s.size() / 10);
    qsizetype cut = 0;
    for (qsizetype i = 0; i < s.size(); ++i) {
        if (s[i] != c) continue;
        components.append(s.mid(cut, i - cut));
        cut = i + 1;
    }
    if (cut < s.size()) components.append(s.mid(cut));
    return components;
}

QString StringExtensions::repeated(const QString &s, int n) {
    if (n < 1) return QStringLiteral("");
    if (n == 1) return s;
    // A result larger than a string can hold is no string.
    if (s.size() > 0 && qsizetype(n) > (std::numeric_limits<int>::max() - 64) / s.size()) return {};
    QString r = s.repeated(n / 2);
    r += r;
    if (n % 2) r += s;
    return r;
}

// ---- Conversions ----

QString StringExtensions::stringWithObjCString(const QString &literal) {
    if (literal.size() < 3) return QStringLiteral("");
    QString body = literal.mid(2, literal.size() - 3);
    // The order matters: backslash pairs collapse first.
    static constexpr std::array<std::pair<const char16_t *, const char16_t *>, 5> kEscapes{{
        {u"\\\\", u"\\"},
        {u"\\\"", u"\""},
        {u"\\r", u"\r"},
        {u"\\n", u"\n"},
        {u"\\t", u"\t"},
    }};
    for (const auto &[from, to] : kEscapes) replaceAll(body, from, to);
    return body;
}

QString StringExtensions::objCStringWithString(const QString &s) { return s; }

QString StringExtensions::stringWithOSType(OSType type) { return KVFourCharCode::toString(type); }

QString StringExtensions::stringWithMacRomanCString(const char *bytes, int length) {
    if (!bytes) return {};
    return decode(QByteArrayView(bytes, std::max(length, 0)), NSMacOSRomanStringEncoding);
}

QString StringExtensions::stringWithMacRomanCString(const char *bytes) {
    if (!bytes) return {};
    return stringWithMacRomanCString(bytes, int(std::strlen(bytes)));
}

QString StringExtensions::stringWithExpandedPercentEscapes(const QString &s) {
    if (!s.contains(u'%') || hasLoneSurrogate(s)) return s;
    // A '%' without two hex digits, or bytes that are no UTF-8, leave the text.
    const auto hexDigit = [&](qsizetype i) {
        return i < s.size() && s[i].unicode() < 0x80 && std::isxdigit(s[i].unicode());
    };
    QByteArray bytes;
    bytes.reserve(s.size());
    qsizetype run = 0;
    for (qsizetype i = 0; i < s.size(); ++i) {
        if (s[i] != u'%') continue;
        if (!hexDigit(i + 1) || !hexDigit(i + 2)) return s;
        bytes += QStringView(s).sliced(run, i - run).toUtf8();
        bytes += char(QStringView(s).sliced(i + 1, 2).toUInt(nullptr, 16));
        i += 2;
        run = i + 1;
    }
    bytes += QStringView(s).sliced(run).toUtf8();
    const QString text = decode(bytes, NSUTF8StringEncoding);
    return text.isNull() ? s : text;
}

QString StringExtensions::stringWithPercentEscapes(const QString &s) {
    const QString expanded = stringWithExpandedPercentEscapes(s);
    if (hasLoneSurrogate(expanded)) return s;
    // What the platform's legacy escaping leaves alone besides letters and digits.
    const QByteArray escaped = QUrl::toPercentEncoding(expanded, "!$&'()*+,-./:;=?@_~");
    return QString::fromLatin1(escaped).replace(QStringLiteral("%23"), QStringLiteral("#"));
}

// ---- Numbers and truth values ----

long StringExtensions::numericValue(const QString &s) {
    KVCLocaleScope cLocale;
    return std::strtol(s.toUtf8().constData(), nullptr, 0);
}

int StringExtensions::intValue(const QString &s) {
    const QByteArray number = numberPrefix(s, false);
    KVCLocaleScope cLocale;
    const long long value = std::strtoll(number.constData(), nullptr, 10);
    return int(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

float StringExtensions::floatValue(const QString &s) {
    const QByteArray number = numberPrefix(s, true);
    KVCLocaleScope cLocale;
    return std::strtof(number.constData(), nullptr);
}

bool StringExtensions::booleanValue(const QString &s) {
    if (!s.isEmpty() && QStringView(u"TtYy1").contains(s[0])) return true;
    return intValue(s) != 0;
}

bool StringExtensions::isIntegerNumber(const QString &s) {
    if (s.isEmpty()) return false;
    return std::all_of(s.begin(), s.end(), [](QChar c) { return c >= u'0' && c <= u'9'; });
}

float StringExtensions::smartFloatValue(const QString &s) {
    QString text = s;
    const qsizetype comma = text.indexOf(u','), dot = text.indexOf(u'.');
    if (comma >= 0 && dot >= 0) {
        if (comma > dot) {
            text.remove(u'.');
            text.replace(u',', u'.');
        } else {
            text.remove(u',');
        }
    } else if (comma >= 0) {
        text.replace(u',', u'.');
    }
    return floatValue(text);
}

// ---- Digest, XML and comparison ----

QString StringExtensions::MD5String(const QString &s) {
    QByteArray bytes = s.toUtf8();
    const qsizetype zero = bytes.indexOf('\0');
    if (zero >= 0) bytes.truncate(zero);
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

QString StringExtensions::xmlElementForKey(const QString &s, const QString &key) {
    const QString open = kvFormat("<%@>", key);
    const qsizetype start = s.indexOf(open);
    if (start < 0) return {};
    const qsizetype from = start + open.size();
    const qsizetype end = s.indexOf(kvFormat("</%@>", key), from);
    if (end < 0) return {};
    return s.mid(from, end - from);
}

NSComparisonResult StringExtensions::numericCompare(const QString &s, const QString &other) {
    return KVUtilitiesPrivate::numericCompare(s, other);
}

NSComparisonResult StringExtensions::caseInsensitiveNumericCompare(const QString &s,
                                                                   const QString &other) {
    return KVUtilitiesPrivate::numericCompare(s, other, Qt::CaseInsensitive);
}

NSComparisonResult StringExtensions::casdInsensitiveNumericCompare(const QString &s,
                                                                   const QString &other) {
    return caseInsensitiveNumericCompare(s, other);
}

// ---- Backslash escapes ----

QString StringExtensions::stringByEscapingCharacters(const QString &s, const QString &characters) {
    const auto find = [&](qsizetype from, qsizetype to) -> qsizetype {
        // The platform raises on a range past the end; here it ends there.
        to = std::min(to, s.size());
        for (qsizetype i = from; i < to; ++i)
            if (characters.contains(s[i])) return i;
        return -1;
    };
    qsizetype i = find(0, s.size());
    if (i < 0) return s;
    // The copy m is built as it is edited: every edit lies at least two units
    // behind the one before, so m is `out` (final) followed by the receiver
    // from `tail` on, and no edit moves the rest of a long text.
    QString out;
    out.reserve(s.size() + s.size() / 8 + 16);
    qsizetype tail = 0;
    while (i >= 0) {
        const qsizetype unchanged = i - out.size();
        out += QStringView(s).sliced(tail, unchanged);
        tail += unchanged;
        // The index comes from the receiver and is applied to the copy; the
        // two drift apart after the first escape, and that is kept.
        switch (s[i].unicode()) {
            case u'\t':
                out += u"\\t";
                break;
            case u'\r':
                out += u"\\r";
                break;
            case u'\n':
                out += u"\\n";
                break;
            default:
                out += u'\\';
                out += s[tail];
        }
        ++tail;
        i = find(i + 2, out.size() + s.size() - tail);
    }
    out += QStringView(s).sliced(tail);
    return out;
}

QString StringExtensions::stringByExpandingEscapedCharacters(const QString &s,
                                                             const QString &characters) {
    QString followers;
    if (characters.constData() == KVEscapeCharacters.constData() &&
        characters.size() == KVEscapeCharacters.size()) {
        followers = QStringLiteral("nrt\\");
    } else {
        followers = characters;
        followers.replace(u'\r', u'r').replace(u'\n', u'n').replace(u'\t', u't');
    }
    if (s.size() < 2) return s;
    // The walk over the changing text, written out as it goes: each change
    // shortens the text behind the walk only.
    QString out;
    bool changed = false;
    qsizetype j = 0;
    for (; j < s.size() - 1; ++j) {
        if (s[j] != u'\\' || !followers.contains(s[j + 1])) {
            if (changed) out += s[j];
            continue;
        }
        if (!changed) {
            out.reserve(s.size());
            out = s.first(j);
            changed = true;
        }
        const char16_t follower = s[++j].unicode();
        // A control letter makes its character; any other follower stays.
        out += follower == u't'   ? u'\t'
               : follower == u'r' ? u'\r'
               : follower == u'n' ? u'\n'
                                  : follower;
    }
    if (!changed) return s;
    out += QStringView(s).sliced(j);
    return out;
}

bool StringExtensions::expandEscapedControlCharactersIncludingBackslash(QString &s,
                                                                        bool includingBackslash) {
    if (s.size() < 2) return false;
    QString out;
    bool changed = false;
    qsizetype j = 0;
    for (; j < s.size() - 1; ++j) {
        const char16_t c = s[j].unicode(), next = s[j + 1].unicode();
        const bool control = c == u'\\' && (next == u'r' || next == u't' || next == u'n');
        const bool backslashes = c == u'\\' && next == u'\\';
        if (!changed && (control || (backslashes && includingBackslash))) {
            out.reserve(s.size());
            out = s.first(j);
            changed = true;
        }
        if (control) {
            out += next == u'r' ? u'\r' : next == u't' ? u'\t' : u'\n';
            ++j;
        } else if (backslashes) {
            // One backslash stands for the pair, or the pair is passed over.
            if (changed) out += includingBackslash ? u"\\" : u"\\\\";
            ++j;
        } else if (changed) {
            out += QChar(c);
        }
    }
    if (!changed) return false;
    out += QStringView(s).sliced(j);
    s = out;
    return true;
}

QString StringExtensions::stringByExpandingEscapedControlCharactersIncludingBackslash(
    const QString &s, bool includingBackslash) {
    QString m = s;
    return expandEscapedControlCharactersIncludingBackslash(m, includingBackslash) ? m : s;
}

QString StringExtensions::stringByExpandingEscapedControlCharacters(const QString &s) {
    return stringByExpandingEscapedControlCharactersIncludingBackslash(s, true);
}

// ---- Files ----

bool StringExtensions::appendToFile(const QString &s, const QString &path,
                                    const NSStringEncoding &encoding) {
    const QByteArray name = QFile::encodeName(path);
    int fd = openForWriting(name);
    if (fd < 0) {
        // Create it empty, as the platform's file manager would, never over
        // something that is there.
        const int created = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (created >= 0) ::close(created);
        fd = openForWriting(name);
        if (fd < 0) return false;
    }
    bool ok = false;
    const QByteArray bytes = encode(s, encoding, &ok);
    const off_t end = ::lseek(fd, 0, SEEK_END);
    if (ok && !writeAll(fd, bytes)) {
        // Half a text is lost text: what was written is taken back.
        if (end >= 0) (void)::ftruncate(fd, end);
        ok = false;
    }
    return ::close(fd) == 0 && ok;
}

// ---- Encodings of text files and HTML ----

QString StringExtensions::stringWithData(const QByteArray &data, const NSStringEncoding &encoding) {
    return decode(data, encoding);
}

NSStringEncoding StringExtensions::explicitEncodingOfFile(const QString &path,
                                                          const NSStringEncoding &defaultEncoding) {
    if (!isRegularFile(path)) return defaultEncoding;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return defaultEncoding;
    const QByteArray head = file.read(4);
    if (file.error() != QFileDevice::NoError) return defaultEncoding;
    const NSStringEncoding marked = byteOrderMarkEncoding(head);
    return marked.isValid() ? marked : defaultEncoding;
}

QString StringExtensions::stringWithBestEncodingFromFile(const QString &path) {
    // The file is read once; every step works on the same bytes.
    QByteArray data;
    if (!readRegularFile(path, &data)) return {};
    const NSStringEncoding marked = byteOrderMarkEncoding(data);
    if (marked.isValid()) {
        const QString text = decode(data, marked);
        if (!text.isNull()) return text;
    }
    // The platform's own guess: without a mark, text that is valid UTF-8
    // is UTF-8.
    const QString utf8 = decode(data, NSUTF8StringEncoding);
    if (!utf8.isNull()) return utf8;

    // The scores depend on the first 1,000 units only, so each candidate is
    // scored on a decoded head, and only the best one is decoded whole; one
    // whose whole data turns out invalid gives way to the next best. UTF-8
    // failed above and is not tried again.
    struct Candidate {
        const NSStringEncoding *encoding;
        const char *label;
        float score = 0;
    };
    std::array<Candidate, 3> candidates{{
        {&NSUnicodeStringEncoding, "Unicode"},
        {&NSMacOSRomanStringEncoding, "MacRoman"},
        {&NSISOLatin1StringEncoding, "Latin1"},
    }};
    constexpr qsizetype kHeadBytes = 4 * 1000 + 4;
    std::vector<Candidate> ranked;
    for (Candidate &candidate : candidates) {
        const QString head = decode(data, *candidate.encoding, kHeadBytes);
        if (head.isNull()) continue;
        candidate.score = reasonableTextFactor(head.first(std::min<qsizetype>(head.size(), 1000)),
                                               QString::fromLatin1(candidate.label));
        // Not a number never wins, nor does anything at or below the start.
        if (candidate.score > -1000000.0f) ranked.push_back(candidate);
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const Candidate &a, const Candidate &b) { return a.score > b.score; });
    for (const Candidate &candidate : ranked) {
        const QString text = decode(data, *candidate.encoding);
        if (!text.isNull()) return text;
    }
    return {};
}

float StringExtensions::reasonableTextFactor(const QString &s, const QString &label) {
    Q_UNUSED(label);
    const qsizetype n = std::min<qsizetype>(s.size(), 1000);
    const auto *units = reinterpret_cast<const char16_t *>(s.constData());
    int good = 0, bad = 0;
    for (qsizetype i = 0; i < n; ++i) {
        const char16_t c = units[i];
        if (c < 33) {
            if (c == 9 || c == 10 || c == 13 || c == 32)
                ++good;
            else
                ++bad;
        } else if (c < 0x80) {
            // ASCII holds no marks and no unassigned code points.
            good += (c >= u'0' && c <= u'9') || ((c | 0x20) >= u'a' && (c | 0x20) <= u'z');
        } else {
            const int8_t type = u_charType(c);
            if (U_MASK(type) & (U_GC_L_MASK | U_GC_M_MASK | U_GC_N_MASK))
                ++good;
            else if (type == U_UNASSIGNED)
                bad += 10;
        }
    }
    return float(good - bad) / float(n);
}

QString StringExtensions::stringWithHTML(const QByteArray &data) {
    const QString s = decode(data, NSISOLatin1StringEncoding);
    if (!s.contains(u"html", Qt::CaseInsensitive)) {
        kvLog("no HTML in Latin");
        const QString t = decode(data, NSUnicodeStringEncoding);
        if (t.contains(u"html", Qt::CaseInsensitive)) return t;
        kvLog("no HTML in Unicode");
        return s;
    }
    const qsizetype meta = s.indexOf(u"<meta", 0, Qt::CaseInsensitive);
    if (meta < 0) return s;
    const qsizetype charset = s.indexOf(u"charset", meta, Qt::CaseInsensitive);
    if (charset < 0) return s;
    qsizetype i = charset + 7;
    while (i < s.size() && (s[i].unicode() < 33 || s[i] == u'=')) ++i;
    const qsizetype start = i;
    while (i < s.size() && s[i].unicode() < 0x80 && (s[i].isLetterOrNumber() || s[i] == u'-')) ++i;
    if (i == start) return s;
    const NSStringEncoding encoding =
        NSStringEncoding::fromIANAName(s.mid(start, i - start).toLatin1());
    if (!encoding.isValid() || encoding == NSISOLatin1StringEncoding) return s;
    const QString t = decode(data, encoding);
    return t.isNull() ? s : t;
}

QString StringExtensions::stringByExpandingHTMLEntities(const QString &s) {
    return QTextDocumentFragment::fromHtml(s).toPlainText();
}

// ---- Code points, virtual characters and emoji ----

unsigned StringExtensions::numberOfUnicodeCharacters(const QString &s) {
    const auto *units = reinterpret_cast<const char16_t *>(s.constData());
    const qsizetype length = s.size();
    qsizetype pairs = 0;
    for (qsizetype i = 1; i < length; ++i)
        pairs += (units[i] & 0xFC00) == 0xDC00 && (units[i - 1] & 0xFC00) == 0xD800;
    return unsigned(length - pairs);
}

UTF32Char StringExtensions::longCharacterAtIndex(const QString &s, int i) {
    if (i < 0 || i >= s.size()) return 0;
    const char16_t c = s[i].unicode();
    if (isHighSurrogate(c) && i + 1 < s.size() && isLowSurrogate(s[i + 1].unicode()))
        return combine(c, s[i + 1].unicode());
    return c;
}

UTF32Char StringExtensions::UTF32Character(const QString &s) {
    if (s.isEmpty() || numberOfUnicodeCharacters(s) != 1) return 0;
    return longCharacterAtIndex(s, 0);
}

QString StringExtensions::stringWithUTF32Character(UTF32Char c) {
    return initWithUTF32Character(c);
}

QString StringExtensions::initWithUTF32Character(UTF32Char c) {
    if (c < 0x10000) return QString(QChar(char16_t(c)));
    if (c >= kFlagFirst && c <= kFlagLast) {
        const UTF32Char v = c - kFlagFirst;
        const QChar units[4] = {QChar(0xD83C), QChar(char16_t(0xDDE6 + v / 26)), QChar(0xD83C),
                                QChar(char16_t(0xDDE6 + v % 26))};
        return QString(units, 4);
    }
    if (c >= kZWJFirst && c <= kKeycapLast) {
        if (const UTF32Char *points = utf32CharactersForVirtualCharacter(c))
            return fromCodePoints(points);
    }
    if (c >= kLigatureFirst) {
        std::lock_guard lock(s_ligatureMutex);
        if (c - kLigatureFirst < UTF32Char(s_ligatureArray.size()))
            return s_ligatureArray[c - kLigatureFirst];
    }
    QString text;
    appendCodePoint(text, c);
    return text;
}

void StringExtensions::forUTF32Characters(const QString &s,
                                          const std::function<void(UTF32Char)> &block) {
    const auto *units = reinterpret_cast<const char16_t *>(s.constData());
    const qsizetype length = s.size();
    for (qsizetype i = 0; i < length; ++i) {
        const char16_t c = units[i];
        if (!isHighSurrogate(c)) {
            block(c);
            continue;
        }
        if (++i >= length) break;
        if (isLowSurrogate(units[i])) block(combine(c, units[i]));
    }
}

namespace {
void appendHex(QString &text, UTF32Char value) {
    // "%04X": at least four upper-case digits.
    QString digits = QString::number(value, 16).toUpper();
    if (digits.size() < 4) digits.prepend(QString(4 - digits.size(), u'0'));
    text += digits;
}
}  // namespace

QString StringExtensions::UTF16SequenceString(const QString &s) {
    QString text;
    text.reserve(s.size() * 5);
    for (qsizetype i = 0; i < s.size(); ++i) {
        if (i) text += u',';
        appendHex(text, s[i].unicode());
    }
    return text;
}

QString StringExtensions::UTF32SequenceString(const QString &s) {
    QString text;
    forUTF32Characters(s, [&](UTF32Char c) {
        if (!text.isEmpty()) text += u',';
        appendHex(text, c);
    });
    return text;
}

bool StringExtensions::isVirtualCharacter(UTF32Char c) {
    return (c >= kFlagFirst && c <= kFlagLast) || (c >= kZWJFirst && c <= kZWJLast) ||
           (c >= kKeycapFirst && c <= kKeycapLast) || (c >= kLigatureFirst && c < kLigatureEnd);
}

const UTF32Char *StringExtensions::utf32CharactersForVirtualCharacter(UTF32Char c) {
    if (c >= kFlagFirst && c <= kFlagLast) {
        thread_local UTF32Char uc[3];
        uc[0] = kRegionalIndicatorA + (c - kFlagFirst) / 26;
        uc[1] = kRegionalIndicatorA + (c - kFlagFirst) % 26;
        uc[2] = 0;
        return uc;
    }
    if (c >= kZWJFirst && c <= kZWJLast) return ZWJ_SEQUENCES[c - kZWJFirst];
    if (c >= kKeycapFirst && c <= kKeycapLast) return KEYCAP_SEQUENCES[c - kKeycapFirst];
    return nullptr;
}

void StringExtensions::defineLigatures(const QStringList &ligatures) {
    std::lock_guard lock(s_ligatureMutex);
    s_ligatureArray = ligatures;
}

QString StringExtensions::emojiStringWithSkinColor(const QString &s, int colour) {
    if (s.isEmpty()) return s;
    const UTF32Char wanted = colour >= 1 && colour <= 6 ? kSkinColours[colour] : 0;
    UTF32Char present = 0;
    qsizetype at = -1;
    for (qsizetype p = 1; s.size() >= 3 && p <= s.size() - 2; ++p) {
        const char16_t low = s[p + 1].unicode();
        if (s[p] == QChar(0xD83C) && low >= 0xDFFB && low <= 0xDFFF) {
            present = combine(0xD83C, low);
            at = p;
            break;
        }
    }
    if (wanted == present) return s;
    // Removing a modifier puts U+0000 in its place, on purpose.
    const QString modifier = stringWithUTF32Character(wanted);
    if (at >= 0) return s.first(at) + modifier + s.sliced(at + 2);
    const qsizetype baseLength =
        s.size() >= 2 && isHighSurrogate(s[0].unicode()) && isLowSurrogate(s[1].unicode()) ? 2 : 1;
    QStringView rest = QStringView(s).sliced(baseLength);
    if (rest.startsWith(u"\uFE0F\u200D")) rest = rest.sliced(1);
    return s.first(baseLength) + modifier + rest.toString();
}

// ---- Pattern matching ----

bool StringExtensions::matchesWildcardPattern(const QString &s, const QString &pattern) {
    if (!pattern.contains(u'*')) return s == pattern;
    const QStringList parts = pattern.split(u'*');
    const qsizetype last = parts.size() - 1;
    qsizetype pos = 0;
    for (qsizetype i = 0; i <= last; ++i) {
        const QString &part = parts[i];
        if (part.isEmpty()) continue;
        if (i == 0) {
            if (!s.startsWith(part)) return false;
            pos = part.size();
        } else if (i < last) {
            // Leftmost occurrence, no backtracking.
            const qsizetype found = s.indexOf(part, pos);
            if (found < 0) return false;
            pos = found + part.size();
        } else if (!s.endsWith(part) || pos + part.size() > s.size()) {
            return false;
        }
    }
    return true;
}

namespace {

// Both replacing methods: false, after the log line, when the text stays as
// it was because of an error. Each method has its own once-only flag.
bool replaceRegex(QString &text, const QString &pattern, const QString &templ,
                  std::atomic<bool> &messageLogged) {
    if (!KVRegularExpression::regexAvailable()) {
        if (!messageLogged.exchange(true))
            kvLog("Regular expressions are not available (require OS X 10.7 or newer).");
        return false;
    }
    QString error;
    const auto expression = KVRegularExpression::regularExpressionWithPattern(
        pattern, NSRegularExpressionUseUnicodeWordBoundaries, &error);
    if (expression &&
        expression->replaceMatchesInString(text, 0, {0, text.size()}, templ, &error) >= 0)
        return true;
    kvLog("Regular expression error: %@", error);
    return false;
}

}  // namespace

QString StringExtensions::stringByReplacingOccurrencesOfRegexPattern(const QString &s,
                                                                     const QString &pattern,
                                                                     const QString &templ) {
    static std::atomic<bool> messageLogged = false;
    QString text = s;
    return replaceRegex(text, pattern, templ, messageLogged) ? text : s;
}

void StringExtensions::replaceOccurrencesOfRegexPattern(QString &s, const QString &pattern,
                                                        const QString &templ) {
    static std::atomic<bool> messageLogged = false;
    replaceRegex(s, pattern, templ, messageLogged);
}
