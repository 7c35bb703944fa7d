#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QProcess>
#include <cmath>

#include "LogCapture.h"
#include "QStringStream.h"
#include "StringExtensions.h"
#include "TestEnvironment.h"
#include "XSession.h"

using namespace StringExtensions;

namespace {

QString u16(std::initializer_list<char16_t> units) {
    return QString(reinterpret_cast<const QChar *>(std::data(units)), qsizetype(units.size()));
}

QString writeTemp(const QByteArray &bytes) {
    static int counter = 0;
    const QString path = TestEnvironment::makeTempDir("text") + QString("/%1").arg(counter++);
    EXPECT_TRUE(TestEnvironment::writeFile(path, bytes));
    return path;
}

bool makeFifo(const QString &path) {
    return mkfifo(QFile::encodeName(path).constData(), 0600) == 0;
}

QString readAll(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()) : QString();
}

// A null string told apart from an empty one in a row's output.
QString nullShown(const QString &s) { return s.isNull() ? "null" : s; }

// Each row's input through the function gives the row's output.
template <typename In, typename Out, typename F>
void expectRows(F function, std::initializer_list<std::pair<In, Out>> rows) {
    for (const auto &[in, out] : rows) EXPECT_EQ(function(in), out) << testing::PrintToString(in);
}

}  // namespace

// clang-format off
TEST(StringExtensionsTest, TrimmingLinesAndRepeats) {
    const QString nbsp(QChar(0xA0));
    expectRows<QString, QString>(stringByTrimmingWhitespace, {{"   ", ""}, {" \t\x01x y\r\n", "x y"},
        {nbsp + "x" + nbsp, "x"}});
    EXPECT_EQ(trimWhitespace(nbsp + " x\n"), "x");
    EXPECT_EQ(asSingleLine("\ta\nb\x7F" + u16({0x200B})), "a b");
    expectRows<QString, QStringList>(arrayOfLines, {{"a\r\nb\nc", {"a", "b\nc"}},
        {"a\nb\rc\n", {"a", "b\rc", ""}}, {"a\rb", {"a", "b"}}});
    // The fixed pass order: CR LF, then CR, then LF; a CR LF separator grows again.
    const auto crlf = [](const QString &s) { return withLineSeparator(s, "\r\n"); };
    expectRows<QString, QString>(crlf, {{"a\r\nb", "a\r\r\n\r\nb"}, {"a\nb\rc", "a\r\nb\r\r\nc"}});
    EXPECT_EQ(withLineSeparator("a\r\nb\rc\nd", QString()), "abcd");
    const auto commas = [](const QString &s) { return componentsSeparatedByCharacter(s, u','); };
    expectRows<QString, QStringList>(commas, {{"a,,b,", {"a", "", "b"}}, {",a", {"", "a"}}, {"", {}}});
    expectRows<int, QString>([](int n) { return repeated("ab", n); }, {{0, ""}, {-3, ""},
        {5, "ababababab"}});
    // Larger than a string can hold: no string rather than a crash.
    EXPECT_TRUE(repeated(QString(1 << 20, u'x'), 1 << 20).isNull());
}

TEST(StringExtensionsTest, ConversionsNumbersAndComparisons) {
    // Backslash pairs collapse first, so "\\n" ends as a line feed.
    expectRows<QString, QString>(stringWithObjCString, {{"@\"x\\\\n\"", "x\n"}, {"@\"", ""}});
    // "50%" is no escape and "%FF" no UTF-8: both taken as they are; a lone surrogate stays.
    const QString lone = u16({'%', '2', '0', 0xD800});
    expectRows<QString, QString>(stringWithPercentEscapes, {{"a b#c", "a%20b#c"}, {"a%20b", "a%20b"},
        {"50%", "50%25"}, {"%FF", "%25FF"}, {lone, lone}});
    EXPECT_EQ(stringWithExpandedPercentEscapes("%41%c3%a9"), u16({'A', 0xE9}));
    expectRows<QString, long>(numericValue, {{"0x10", 16}, {"010", 8}, {" -42z", -42},
        {"99999999999999999999", LONG_MAX}});
    expectRows<QString, bool>(booleanValue, {{"yes", true}, {"True", true}, {"2", true}, {" -3", true},
        {"no", false}, {"0", false}, {"", false}, {"N1", false}});
    expectRows<QString, bool>(isIntegerNumber, {{"123", true}, {"-5", false}, {"", false},
        {QString::fromUtf8("\xd9\xa1"), false}});
    expectRows<QString, float>(smartFloatValue, {{"1.234,5", 1234.5f}, {"1,234.5", 1234.5f}, {"3,5", 3.5f},
        {"2.5e2x", 250.0f}, {"0x10", 0.0f}});
    // Only the bytes before the first zero count.
    EXPECT_EQ(MD5String(u16({'a', 'b', 'c', 0, 'x'})), "900150983cd24fb0d6963f7d28e17f72");
    const auto element = [](const QString &xml) { return nullShown(xmlElementForKey(xml, "a")); };
    expectRows<QString, QString>(element, {{"<a>1</a><a>2</a>", "1"}, {"<b><a></a></b>", ""},
        {"</a><a>", "null"}});
    EXPECT_EQ(numericCompare("file9", "file10"), NSOrderedAscending);
    EXPECT_EQ(numericCompare("File9", "file9"), NSOrderedAscending);
    EXPECT_EQ(caseInsensitiveNumericCompare("File10", "file9"), NSOrderedDescending);
}

TEST(StringExtensionsTest, BackslashEscapes) {
    // The next search runs in the receiver from two past the last find, so
    // the positions drift apart from the copy's: kept as it is.
    const std::tuple<QString, QString, QString> escapes[] = {{"\t\t", "\t", "\\t\t"},
        {"a\nb\rc", "\n\r", "a\\n\\r\rc"}, {"a\"b\"c", "\"", "a\\\"\\b\"c"}};
    for (const auto &[in, chars, out] : escapes)
        EXPECT_EQ(stringByEscapingCharacters(in, chars), out) << in;
    // The constant itself is known by identity; an equal string is taken by
    // its characters, where a line feed stands for "n".
    const std::tuple<QString, QString, QString> expansions[] = {
        {"a\\tb\\\\c\\q", KVEscapeCharacters, "a\tb\\c\\q"},
        {"a\\tb\\\\c\\q", "\n\r\t\\", "a\tb\\c\\q"}, {"\\n\\r", "\n", "\n\\r"},
        {"\\", KVEscapeCharacters, "\\"}};
    for (const auto &[in, chars, out] : expansions)
        EXPECT_EQ(stringByExpandingEscapedCharacters(in, chars), out) << in;
    const std::tuple<QString, bool, QString, bool> inPlace[] = {{"a\\nb\\tc\\rd", true, "a\nb\tc\rd", true},
        {"\\\\n", true, "\\n", true}, {"\\\\n", false, "\\\\n", false}, {"\\x", true, "\\x", false}};
    for (const auto &[in, backslash, out, changed] : inPlace) {
        QString text = in;
        EXPECT_EQ(expandEscapedControlCharactersIncludingBackslash(text, backslash), changed);
        EXPECT_EQ(text, out) << in;
    }
}

// No form in the encoding, no encoding, no folder, a full disk, a FIFO
// without a reader (refused at once): false, and the file keeps what it had.
TEST(StringExtensionsTest, AppendingToFiles) {
    const QString dir = TestEnvironment::makeTempDir("append"), path = dir + "/log.txt";
    EXPECT_TRUE(appendToFile("caf\u00e9\n", path, NSUTF8StringEncoding));
    EXPECT_TRUE(appendToFile("\u00e9", path, NSStringEncoding::named("macroman")));
    ASSERT_TRUE(makeFifo(dir + "/fifo"));
    for (const auto &[text, file, encoding] :
         {std::tuple<QString, QString, NSStringEncoding>{"\u20ac", path, NSISOLatin1StringEncoding},
             {"x", path, NSStringEncoding::named("no-such-encoding")},
             {"x", dir + "/missing/log.txt", NSUTF8StringEncoding},
             {"x", "/dev/full", NSUTF8StringEncoding}, {"x", dir + "/fifo", NSUTF8StringEncoding}})
        EXPECT_FALSE(appendToFile(text, file, encoding)) << file;
    EXPECT_EQ(readAll(path), QString::fromLatin1("caf\xC3\xA9\n\x8E"));
    // A real small disk that fills up halfway through takes nothing.
    const QString disk = TestEnvironment::makeTempDir("small-disk"), small = disk + "/log.txt";
    if (QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=64k", "tmpfs", disk}) != 0)
        GTEST_SKIP() << "cannot mount (needs root)";
    EXPECT_TRUE(appendToFile("keep\n", small, NSUTF8StringEncoding));
    EXPECT_FALSE(appendToFile(QString(200 * 1024, u'x'), small, NSUTF8StringEncoding));
    EXPECT_EQ(readAll(small), "keep\n");
    QProcess::execute("umount", {disk});
}

// Only bytes the file has count: FF FE alone is UTF-16, FF FE 00 00 UTF-32.
// Decoding is strict: bytes that are no text give no string, never
// replacement characters; a byte-order mark is skipped.
TEST(StringExtensionsTest, ByteOrderMarksAndStrictDecoding) {
    const auto marked = [](const QByteArray &bytes) {
        return explicitEncodingOfFile(writeTemp(bytes), NSMacOSRomanStringEncoding);
    };
    expectRows<QByteArray, NSStringEncoding>(marked,
        {{QByteArray("\xFF\xFE\x00\x00", 4), NSUTF32LittleEndianStringEncoding},
        {"\xEF\xBB\xBFx", NSUTF8StringEncoding}, {"\xFF\xFE", NSUTF16LittleEndianStringEncoding},
        {"\xFE\xFF", NSUTF16BigEndianStringEncoding}, {"plain", NSMacOSRomanStringEncoding}});
    EXPECT_FALSE(explicitEncodingOfFile("/no/such/file", {}).isValid());
    const auto utf8 = [](const QByteArray &bytes) {
        return nullShown(stringWithData(bytes, NSUTF8StringEncoding));
    };
    expectRows<QByteArray, QString>(utf8, {{"\xC0\x80", "null"}, {"\xED\xA0\x80", "null"},
        {"ab\xE2\x82", "null"}, {"\xEF\xBB\xBFx", "x"},
        {QByteArray("\x00\x00\x00", 3), u16({0, 0, 0})}, {"", ""}});
    EXPECT_TRUE(stringWithData(QByteArray("\x00a\x00", 3), NSUnicodeStringEncoding).isNull());
    EXPECT_TRUE(stringWithData("x", NSStringEncoding::named("no-such-encoding")).isNull());
    EXPECT_EQ(stringWithData(QByteArray("\xFF\xFEx\x00", 4), NSUnicodeStringEncoding), "x");
}

// Not UTF-8 and of odd length (no UTF-16), Mac OS Roman and Latin-1 score
// the same and the earlier stays; Latin-1 reads a letter where Mac OS Roman
// reads a symbol; read as UTF-16, CJK letters outscore the Latin reading; a
// head that decodes while the whole does not gives way to the next best.
TEST(StringExtensionsTest, BestEncodingOfAFile) {
    const auto best = [](const QByteArray &b) { return stringWithBestEncodingFromFile(writeTemp(b)); };
    expectRows<QByteArray, QString>(best, {{QByteArray("\xFF\xFEh\x00i\x00", 6), "hi"},
        {"caf\xC3\xA9", u16({'c', 'a', 'f', 0xE9})},
        {"caf\xE9!", u16({'c', 'a', 'f', 0xC8, '!'})}, {"x\xAA!", u16({'x', 0xAA, '!'})},
        {"\x4E\x80\x4E\x81", u16({0x4E80, 0x4E81})},
        {QByteArray(5000, 'a') + QByteArray("\xD8\x00", 2), QString(5000, u'a') + u16({0xFF, 0})}});
    const QString dir = TestEnvironment::makeTempDir("unreadable");
    ASSERT_TRUE(makeFifo(dir + "/fifo"));
    for (const QString &path : {dir, dir + "/fifo", dir + "/missing"})
        EXPECT_TRUE(stringWithBestEncodingFromFile(path).isNull()) << path;
    const auto factor = [](const QString &s) { return reasonableTextFactor(s, "x"); };
    expectRows<QString, float>(factor, {{QString(9, u'a') + QChar(0x0378), -0.1f}, {"\t\n\r \x01", 0.6f},
        {u16({0x0301, 0x0663, 0xD800}), 2.0f / 3.0f}});
    EXPECT_TRUE(std::isnan(reasonableTextFactor("", "x")));
}

// What each page logs: nothing while a reading in Latin-1 finds HTML. A
// quoted name, a name nobody knows and bytes that are no UTF-8 keep the
// Latin-1 reading.
TEST(StringExtensionsTest, HtmlIsReadInItsDeclaredCharset) {
    const std::tuple<QByteArray, QString, QStringList> pages[] = {
        {"<html><meta http-equiv=\"Content-Type\" content='text/html; charset=utf-8'>\xE2\x82\xAC",
         "<html><meta http-equiv=\"Content-Type\" content='text/html; charset=utf-8'>\u20ac", {}},
        {"<html><meta charset = windows-1252>\x80", "<html><meta charset = windows-1252>\u20ac", {}},
        {"<html><meta charset='utf-8'>\xC3\xA9", "<html><meta charset='utf-8'>\u00c3\u00a9", {}},
        {"<html><meta charset=x-nothing>\xE9", "<html><meta charset=x-nothing>\u00e9", {}},
        {"<html><meta charset=utf-8>\xE9", "<html><meta charset=utf-8>\u00e9", {}},
        {QByteArray("\0<\0h\0t\0m\0l\0>", 12), "<html>", {"no HTML in Latin"}},
        {"plain", "plain", {"no HTML in Latin", "no HTML in Unicode"}}};
    for (const auto &[data, text, logged] : pages) {
        LogCapture log;
        EXPECT_EQ(stringWithHTML(data), text) << data.toHex().constData();
        EXPECT_EQ(log.messages(), logged);
    }
}

TEST(StringExtensionsTest, CodePointsAndVirtualCharacters) {
    const QString mixed = u16({'a', 0xD83D, 0xDE00, 0xD800, 'b', 0xDC00, 0xD800});
    expectRows<QString, unsigned>(numberOfUnicodeCharacters, {{mixed, 6}, {u16({0xDC00, 0xD800}), 2}});
    const auto at = [&](int i) { return longCharacterAtIndex(mixed, i); };
    expectRows<int, UTF32Char>(at, {{1, 0x1F600}, {2, 0xDE00}, {6, 0xD800}, {7, 0}, {-1, 0}});
    // A high surrogate takes the unit behind it along when that is no partner.
    EXPECT_EQ(UTF32SequenceString(mixed), "0061,1F600,DC00");
    expectRows<QString, UTF32Char>(UTF32Character, {{u16({0xD83D, 0xDE00}), 0x1F600}, {"ab", 0}, {"", 0}});
    // With no ligature defined, 0xB0005 is the value itself.
    const auto points = [](UTF32Char c) { return UTF32SequenceString(stringWithUTF32Character(c)); };
    expectRows<UTF32Char, QString>(points, {{0xA0000 + 5 * 26 + 18, "1F1EB,1F1F8"}, {0xA1000, "0023,20E3"},
        {0xA100B, "0039,20E3"},
        {0xA0300, "1F636,200D,1F32B,FE0F"}, {0xA0300 + 221, "1F3F4,200D,2620,FE0F"}, {0xB0005, "B0005"}});
    expectRows<UTF32Char, bool>(isVirtualCharacter, {{0x9FFFF, false}, {0xA02A4, false}, {0xA03DE, false},
        {0xA100C, false}, {0xBFFFF, false},
        {0xA0FFF, false}, {0xA0000, true}, {0xA02A3, true}, {0xA03DD, true}, {0xA1000, true},
        {0xA100B, true}, {0xBFFFE, true}});
    // The table lookup spells flags itself, apart from the string's own path.
    EXPECT_EQ(utf32CharactersForVirtualCharacter(0xA0000 + 27)[1], 0x1F1E7u);
    defineLigatures({"ffi", "\u00e6"});
    EXPECT_EQ(stringWithUTF32Character(0xB0001), "\u00e6");
    EXPECT_EQ(points(0xB0002), "B0002");
    defineLigatures({});
}

// clang-format on

// Without an X display or a compositor (or with a FIFO in its place) there is nothing to ask.
TEST(StringExtensionsTest, KeyNamesWithoutADisplay) {
    const QString fifo = TestEnvironment::makeTempDir("keymap") + "/fifo";
    ASSERT_TRUE(makeFifo(fifo));
    for (const QString &compositor : {QString(""), QString("kv-no-such-compositor"), fifo}) {
        ScopedEnv noDisplay("DISPLAY", std::nullopt);
        ScopedEnv noCompositor("WAYLAND_DISPLAY", QFile::encodeName(compositor));
        EXPECT_EQ(stringWithVirtualKeyCode(0, 0), "<ERR>") << compositor;
    }
}

// A bad pattern or template, or one that would backtrack without end, leaves
// the text alone and logs the error on every call; a linear pattern over
// millions of units is no runaway. "can't" is one word.
TEST(StringExtensionsTest, WildcardPatternsAndRegexReplacement) {
    // clang-format off
    const std::tuple<QString, QString, bool> patterns[] = {{"abc", "a*c", true}, {"abc", "**", true},
        {"abc", "ab", false}, {"abc", "b*", false}, {"ab", "ab*b", false}, {"abb", "ab*b", true},
        {"acb", "a*b*c", false}, {"ABC", "abc", false}, {"", "*", true}, {"abab", "*ab*ab", true}};
    for (const auto &[text, pattern, matches] : patterns)
        EXPECT_EQ(matchesWildcardPattern(text, pattern), matches) << text << " ~ " << pattern;
    const QString runaway = QString(40, u'a') + "!", words = QString("ab ").repeated(1 << 20);
    const std::tuple<QString, QString, QString, QString> rows[] = {
        {"2024-03-07", "(\\d+)-(\\d+)-(\\d+)", "$3.$2.$1", "07.03.2024"}, {"ab", "b", "\\$1", "a$1"},
        {"can't stop", "\\b\\w+\\b", "<$0>", "can't <stop>"},
        {words, "b\\s", "-", QString("a-").repeated(1 << 20)},
        {"abc", "(", "x", {}}, {"abc", "b", "$9", {}}, {runaway, "(a+)+$", "x", {}}};
    // clang-format on
    for (const auto &[text, pattern, templ, out] : rows) {
        LogCapture log;
        const QString expected = out.isNull() ? text : out;
        EXPECT_EQ(stringByReplacingOccurrencesOfRegexPattern(text, pattern, templ), expected);
        QString m = text;
        replaceOccurrencesOfRegexPattern(m, pattern, templ);
        EXPECT_EQ(m, expected) << pattern;
        const QStringList lines = log.messages();
        EXPECT_EQ(lines.size(), out.isNull() ? 2 : 0) << lines.join('\n');
        for (const QString &line : lines)
            EXPECT_TRUE(line.startsWith("Regular expression error: "));
    }
}
