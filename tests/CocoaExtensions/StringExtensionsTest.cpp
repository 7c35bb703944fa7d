#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFileInfo>
#include <QProcess>
#include <cmath>
#include <map>

#include "LogCapture.h"
#include "QStringStream.h"
#include "StringExtensions.h"
#include "TestEnvironment.h"
#include "WaylandSession.h"
#include "XSession.h"

using namespace StringExtensions;

namespace {

QString u16(std::initializer_list<char16_t> units) {
    return QString(reinterpret_cast<const QChar *>(std::data(units)), qsizetype(units.size()));
}

bool sameData(const QString &a, const QString &b) { return a.constData() == b.constData(); }

QString writeTemp(const QByteArray &bytes) {
    static int counter = 0;
    const QString path =
        TestEnvironment::makeTempDir("text") + QString("/file%1.txt").arg(counter++);
    EXPECT_TRUE(TestEnvironment::writeFile(path, bytes));
    return path;
}

}  // namespace

TEST(StringExtensionsTest, UnchangedTextIsTheReceiverItself) {
    const QString text = QStringLiteral("a b\\x"), empty = QStringLiteral("");
    const QString results[] = {stringByTrimmingWhitespace(text),
                               withLineSeparator(text, "\n"),
                               stringByEscapingCharacters(text, "\t"),
                               stringByExpandingEscapedCharacters(text, KVEscapeCharacters),
                               stringByExpandingEscapedControlCharacters(text),
                               repeated(text, 1),
                               objCStringWithString(text),
                               emojiStringWithSkinColor(text, 0),
                               stringWithExpandedPercentEscapes(text),
                               stringByReplacingOccurrencesOfRegexPattern(text, "q", "y")};
    for (const QString &result : results) EXPECT_TRUE(sameData(result, text)) << &result - results;
    EXPECT_TRUE(sameData(stringByTrimmingWhitespace(empty), empty));
    EXPECT_TRUE(sameData(emojiStringWithSkinColor(empty, 3), empty));
}

TEST(StringExtensionsTest, TrimmingAndLines) {
    const QString nbsp(QChar(0xA0));
    const std::pair<QString, QString> trims[] = {
        {"   ", ""}, {" \t\x01x y\r\n", "x y"}, {nbsp + "x" + nbsp, "x"}, {u16({0, 'a', 0}), "a"}};
    for (const auto &[in, out] : trims) EXPECT_EQ(stringByTrimmingWhitespace(in), out) << in;
    EXPECT_EQ(trimWhitespace(nbsp + " x\n"), "x");
    EXPECT_EQ(asSingleLine("\ta\nb\x7F" + u16({0x200B})), "a b");

    const std::pair<QString, QStringList> lines[] = {{"a\r\nb\nc", {"a", "b\nc"}},
                                                     {"a\nb\rc\n", {"a", "b\rc", ""}},
                                                     {"a\rb", {"a", "b"}},
                                                     {"abc", {"abc"}}};
    for (const auto &[in, out] : lines) EXPECT_EQ(arrayOfLines(in), out) << in;

    // The fixed pass order: CR LF, then CR, then LF.
    const std::tuple<QString, QString, QString> separators[] = {
        {"a\r\nb\rc\nd", "\n", "a\nb\nc\nd"}, {"a\r\nb\rc\nd", "\r", "a\rb\rc\rd"},
        {"a\rb", "\r\n", "a\r\r\nb"},         {"a\r\nb", "\r\n", "a\r\r\n\r\nb"},
        {"a\r\nb\rc\nd", QString(), "abcd"},  {"a\nb", "<br>", "a<br>b"}};
    for (const auto &[in, separator, out] : separators)
        EXPECT_EQ(withLineSeparator(in, separator), out) << separator;

    for (const auto &[in, out] :
         {std::pair<QString, QStringList>{"a,,b,", {"a", "", "b"}}, {",a", {"", "a"}}, {"", {}}})
        EXPECT_EQ(componentsSeparatedByCharacter(in, u','), out) << in;

    for (const auto &[n, out] : {std::pair{0, ""}, {-3, ""}, {2, "abab"}, {5, "ababababab"}})
        EXPECT_EQ(repeated("ab", n), out) << n;
    // Larger than a string can hold: no string rather than a crash.
    EXPECT_TRUE(repeated(QString(1 << 20, u'x'), 1 << 20).isNull());
}

TEST(StringExtensionsTest, ConversionsFromSourceTextBytesAndCodes) {
    // Backslash pairs collapse first, so "\\n" ends as a line feed.
    const std::pair<QString, QString> literals[] = {
        {"@\"a\\tb\\\"c\"", "a\tb\"c"}, {"@\"x\\\\n\"", "x\n"}, {"@\"", ""}, {"@\"\"", ""}};
    for (const auto &[in, out] : literals) EXPECT_EQ(stringWithObjCString(in), out) << in;
    EXPECT_EQ(stringWithOSType(0x41424344), "ABCD");
    EXPECT_EQ(stringWithMacRomanCString("caf\x8E"), u16({'c', 'a', 'f', 0xE9}));
    EXPECT_EQ(stringWithMacRomanCString("\xA5\xDB", 2), u16({0x2022, 0x20AC}));
    EXPECT_EQ(stringWithMacRomanCString("ab", -4), "");
    EXPECT_TRUE(stringWithMacRomanCString(nullptr).isNull());

    // "50%" is no escape and "%FF" no UTF-8: both taken as they are.
    const std::pair<QString, QString> escapes[] = {{"a b#c", "a%20b#c"},
                                                   {"a%20b", "a%20b"},
                                                   {"%E2%82%AC/?x=1&y", "%E2%82%AC/?x=1&y"},
                                                   {"50%", "50%25"},
                                                   {"%FF", "%25FF"}};
    for (const auto &[in, out] : escapes) EXPECT_EQ(stringWithPercentEscapes(in), out) << in;
    EXPECT_EQ(stringWithExpandedPercentEscapes("%41%c3%a9"), u16({'A', 0xE9}));
    const QString lone = u16({'%', '2', '0', 0xD800});
    EXPECT_TRUE(sameData(stringWithPercentEscapes(lone), lone));
}

TEST(StringExtensionsTest, NumbersAndTruthValues) {
    const std::pair<QString, long> numbers[] = {{"0x10", 16}, {"010", 8},
                                                {"0x1F", 31}, {" -42z", -42},
                                                {"", 0},      {"99999999999999999999", LONG_MAX}};
    for (const auto &[in, out] : numbers) EXPECT_EQ(numericValue(in), out) << in;
    for (const char *yes : {"yes", "True", "1", "2", "y", " -3"})
        EXPECT_TRUE(booleanValue(yes)) << yes;
    for (const char *no : {"no", "0", "", "false", "N1"}) EXPECT_FALSE(booleanValue(no)) << no;
    for (const auto &[in, out] :
         {std::pair{"123", true}, {"-5", false}, {"", false}, {"1 ", false}, {"\xd9\xa1", false}})
        EXPECT_EQ(isIntegerNumber(QString::fromUtf8(in)), out) << in;
    const std::pair<QString, float> floats[] = {
        {"1.234,5", 1234.5f}, {"1,234.5", 1234.5f}, {"3,5", 3.5f}, {"2.5e2x", 250.0f},
        {"abc", 0.0f},        {" -.5", -0.5f},      {"0x10", 0.0f}};
    for (const auto &[in, out] : floats) EXPECT_FLOAT_EQ(smartFloatValue(in), out) << in;
}

TEST(StringExtensionsTest, DigestXmlAndComparisons) {
    EXPECT_EQ(MD5String(""), "d41d8cd98f00b204e9800998ecf8427e");
    // Only the bytes before the first zero count.
    EXPECT_EQ(MD5String(u16({'a', 'b', 'c', 0, 'x'})), "900150983cd24fb0d6963f7d28e17f72");
    for (const auto &[xml, element] : {std::pair<QString, QString>{"<a>1</a><a>2</a>", "1"},
                                       {"<b><a></a></b>", ""},
                                       {"<a>1", {}},
                                       {"</a><a>", {}}}) {
        EXPECT_EQ(xmlElementForKey(xml, "a"), element) << xml;
        EXPECT_EQ(xmlElementForKey(xml, "a").isNull(), element.isNull()) << xml;
    }

    EXPECT_EQ(numericCompare("file9", "file10"), NSOrderedAscending);
    EXPECT_EQ(numericCompare("File9", "file9"), NSOrderedAscending);
    EXPECT_EQ(caseInsensitiveNumericCompare("File10", "file9"), NSOrderedDescending);
    EXPECT_EQ(casdInsensitiveNumericCompare("FILE9", "file9"), NSOrderedSame);
}

TEST(StringExtensionsTest, BackslashEscapes) {
    // The next search runs in the receiver from two past the last find, so
    // the positions drift apart from the copy's: kept as it is.
    const std::tuple<QString, QString, QString> escapes[] = {
        {"a\tb", "\t", "a\\tb"}, {"\t\t", "\t", "\\t\t"},
        {"x\"", "\"", "x\\\""},  {"a\nb\rc", "\n\r", "a\\n\\r\rc"},
        {"ab\t", "\t", "ab\\t"}, {"a\"b\"c", "\"", "a\\\"\\b\"c"}};
    for (const auto &[in, chars, out] : escapes)
        EXPECT_EQ(stringByEscapingCharacters(in, chars), out) << in;

    // The constant itself is known by identity; an equal string is taken by
    // its characters, where a line feed stands for "n".
    const QString equal = QString("\n\r\t") + u'\\';
    EXPECT_FALSE(sameData(equal, KVEscapeCharacters));
    const std::tuple<QString, QString, QString> expansions[] = {
        {"a\\tb\\\\c\\q", KVEscapeCharacters, "a\tb\\c\\q"},
        {"a\\tb\\\\c\\q", equal, "a\tb\\c\\q"},
        {"\\n\\q", "q", "\\nq"},
        {"\\n\\r", "\n", "\n\\r"},
        {"\\", KVEscapeCharacters, "\\"},
        {"\\\\n", KVEscapeCharacters, "\\n"}};
    for (const auto &[in, chars, out] : expansions)
        EXPECT_EQ(stringByExpandingEscapedCharacters(in, chars), out) << in;

    const std::tuple<QString, bool, QString, bool> inPlace[] = {
        {"a\\nb\\tc\\rd", true, "a\nb\tc\rd", true},
        {"\\\\n", true, "\\n", true},
        {"\\\\n", false, "\\\\n", false},
        {"\\", true, "\\", false},
        {"\\x", true, "\\x", false}};
    for (const auto &[in, backslash, out, changed] : inPlace) {
        QString text = in;
        EXPECT_EQ(expandEscapedControlCharactersIncludingBackslash(text, backslash), changed);
        EXPECT_EQ(text, out) << in;
        EXPECT_EQ(stringByExpandingEscapedControlCharactersIncludingBackslash(in, backslash), out);
    }
}

// Edits of long texts never move the rest of the text: one pass each, and a
// linear pattern over millions of units is no runaway.
TEST(StringExtensionsTest, LongTextsTakeOnePass) {
    const QString tabs(4 << 20, u'\t');
    EXPECT_EQ(stringByEscapingCharacters(tabs, "\t").size(), 6 << 20);  // every other one
    const QString escaped = QString("\\t").repeated(2 << 20);
    EXPECT_EQ(stringByExpandingEscapedControlCharacters(escaped), QString(2 << 20, u'\t'));
    EXPECT_EQ(stringByExpandingEscapedCharacters(escaped, KVEscapeCharacters).size(), 2 << 20);
    const QString words = QString("ab ").repeated(1 << 20);
    LogCapture log;
    EXPECT_EQ(stringByReplacingOccurrencesOfRegexPattern(words, "b\\s", "-"),
              QString("a-").repeated(1 << 20));
    EXPECT_TRUE(log.messages().isEmpty());
}

TEST(StringExtensionsTest, AppendingToFiles) {
    const QString dir = TestEnvironment::makeTempDir("append");
    const QString path = dir + "/log.txt";
    EXPECT_TRUE(appendToFile("caf\u00e9\n", path, NSUTF8StringEncoding));
    EXPECT_TRUE(appendToFile("\u00e9", path, NSISOLatin1StringEncoding));
    EXPECT_TRUE(appendToFile("\u00e9", path, NSStringEncoding::named("macroman")));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray("caf\xC3\xA9\n\xE9\x8E"));

    // No form in the encoding, no encoding, no folder, a full disk: false,
    // and the file keeps what it had.
    EXPECT_FALSE(appendToFile("\u20ac", path, NSISOLatin1StringEncoding));
    EXPECT_FALSE(appendToFile("x", path, NSStringEncoding::named("no-such-encoding")));
    EXPECT_FALSE(appendToFile("x", dir + "/missing/log.txt", NSUTF8StringEncoding));
    EXPECT_FALSE(appendToFile("x", "/dev/full", NSUTF8StringEncoding));
    EXPECT_EQ(QFileInfo(path).size(), 8);
    // A FIFO without a reader is refused at once instead of blocking.
    const QString fifo = dir + "/fifo";
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    EXPECT_FALSE(appendToFile("x", fifo, NSUTF8StringEncoding));
}

// A real small disk that fills up halfway through: false, and the file keeps what it had.
TEST(StringExtensionsTest, AppendingToAFullDiskTakesNothingHalfway) {
    const QString mountPoint = TestEnvironment::makeTempDir("small-disk");
    QProcess mount;
    mount.start("mount", {"-t", "tmpfs", "-o", "size=64k", "tmpfs", mountPoint});
    if (!mount.waitForFinished(10000) || mount.exitCode() != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs (needs root)";
    const QString path = mountPoint + "/log.txt";
    EXPECT_TRUE(appendToFile("keep\n", path, NSUTF8StringEncoding));
    EXPECT_FALSE(appendToFile(QString(200 * 1024, u'x'), path, NSUTF8StringEncoding));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "keep\n");
    file.close();
    QProcess::execute("umount", {mountPoint});
}

TEST(StringExtensionsTest, ByteOrderMarksAnnounceTheEncoding) {
    const std::pair<QByteArray, NSStringEncoding> marks[] = {
        {QByteArray("\x00\x00\xFE\xFF", 4), NSUTF32BigEndianStringEncoding},
        {QByteArray("\xFF\xFE\x00\x00", 4), NSUTF32LittleEndianStringEncoding},
        {"\xEF\xBB\xBFx", NSUTF8StringEncoding},
        {"\xFF\xFE", NSUTF16LittleEndianStringEncoding},
        {QByteArray("\xFF\xFEx\x00", 4), NSUTF16LittleEndianStringEncoding},
        {"\xFE\xFF", NSUTF16BigEndianStringEncoding},
        {"plain", NSMacOSRomanStringEncoding},
        {"", NSMacOSRomanStringEncoding}};
    for (const auto &[bytes, encoding] : marks)
        EXPECT_EQ(explicitEncodingOfFile(writeTemp(bytes), NSMacOSRomanStringEncoding), encoding)
            << bytes.toHex().constData();
    EXPECT_FALSE(explicitEncodingOfFile("/no/such/file", {}).isValid());
}

// Decoding is strict: bytes that are no text in the encoding give no string,
// never a text with replacement characters.
TEST(StringExtensionsTest, DecodingIsStrict) {
    const std::tuple<QByteArray, NSStringEncoding, std::optional<QString>> rows[] = {
        {"\xC0\x80", NSUTF8StringEncoding, std::nullopt},          // overlong
        {"\xED\xA0\x80", NSUTF8StringEncoding, std::nullopt},      // a surrogate
        {"\xF4\x90\x80\x80", NSUTF8StringEncoding, std::nullopt},  // past U+10FFFF
        {"ab\xE2\x82", NSUTF8StringEncoding, std::nullopt},        // cut short
        {QByteArray("\x00a\x00", 3), NSUnicodeStringEncoding, std::nullopt},
        {"x", NSStringEncoding::named("no-such-encoding"), std::nullopt},
        {"\xEF\xBB\xBFx", NSUTF8StringEncoding, "x"},
        {QByteArray("\xFF\xFEx\x00", 4), NSUnicodeStringEncoding, "x"},
        {QByteArray("\x00\x00\x00", 3), NSUTF8StringEncoding, u16({0, 0, 0})},
        {"", NSUTF8StringEncoding, ""}};
    for (const auto &[bytes, encoding, text] : rows) {
        const QString decoded = stringWithData(bytes, encoding);
        EXPECT_EQ(decoded.isNull(), !text.has_value()) << bytes.toHex().constData();
        EXPECT_EQ(decoded, text.value_or(QString()));
    }
}

TEST(StringExtensionsTest, BestEncodingOfAFile) {
    const std::pair<QByteArray, QString> files[] = {
        {QByteArray("\xEF\xBB\xBF") + "caf\xC3\xA9", u16({'c', 'a', 'f', 0xE9})},
        {QByteArray("\xFF\xFEh\x00i\x00", 6), "hi"},
        {"caf\xC3\xA9", u16({'c', 'a', 'f', 0xE9})},
        {"", ""},
        // Not UTF-8, odd length (no UTF-16): Mac OS Roman and Latin-1 score
        // the same, and the earlier candidate stays.
        {"caf\xE9!", u16({'c', 'a', 'f', 0xC8, '!'})},
        // Latin-1 reads a letter where Mac OS Roman reads a symbol.
        {"x\xAA!", u16({'x', 0xAA, '!'})},
        // UTF-8 cut short inside a character is not UTF-8.
        {"ab\xE2\x82", u16({'a', 'b', 0x201A, 0xC7})},
        // Read as UTF-16 these are letters, which outscore the Latin reading.
        {"\x4E\x80\x4E\x81", u16({0x4E80, 0x4E81})}};
    for (const auto &[bytes, text] : files)
        EXPECT_EQ(stringWithBestEncodingFromFile(writeTemp(bytes)), text)
            << bytes.toHex().constData();

    // A head that decodes while the whole does not: the next best wins.
    QByteArray late(5000, 'a');
    late += QByteArray("\xD8\x00", 2);
    EXPECT_EQ(stringWithBestEncodingFromFile(writeTemp(late)).size(), 5002);

    const QString dir = TestEnvironment::makeTempDir("unreadable");
    ASSERT_EQ(mkfifo(QFile::encodeName(dir + "/fifo").constData(), 0600), 0);
    for (const QString &path : {dir, dir + "/fifo", dir + "/missing"})
        EXPECT_TRUE(stringWithBestEncodingFromFile(path).isNull()) << path;
}

TEST(StringExtensionsTest, ReasonableTextFactor) {
    const std::pair<QString, float> rows[] = {
        {"a,b", 2.0f / 3.0f},
        {QString(2000, u'a'), 1.0f},
        {QString(9, u'a') + QChar(0x0378), -0.1f},  // unassigned
        {"\t\n\r \x01", 3.0f / 5.0f},
        {u16({0x0301, 0x0663, 0xD800}), 2.0f / 3.0f}};  // mark, digit, lone surrogate
    for (const auto &[text, score] : rows) EXPECT_FLOAT_EQ(reasonableTextFactor(text, "x"), score);
    EXPECT_TRUE(std::isnan(reasonableTextFactor("", "x")));
}

TEST(StringExtensionsTest, HtmlIsReadInItsDeclaredCharset) {
    const QByteArray euro = "\xE2\x82\xAC";
    // What each page logs: nothing while a reading in Latin-1 finds HTML.
    const std::tuple<QByteArray, QString, QStringList> pages[] = {
        {"<html><meta http-equiv=\"Content-Type\" content='text/html; charset=utf-8'>" + euro,
         "<html><meta http-equiv=\"Content-Type\" content='text/html; charset=utf-8'>\u20ac",
         {}},
        {"<html><meta charset = windows-1252>\x80",
         "<html><meta charset = windows-1252>\u20ac",
         {}},
        // A quoted name and a name nobody knows keep the Latin-1 reading.
        {"<html><meta charset='utf-8'>\xC3\xA9", "<html><meta charset='utf-8'>\u00c3\u00a9", {}},
        {"<html><meta charset=x-nothing>\xE9", "<html><meta charset=x-nothing>\u00e9", {}},
        {"<HTML><META CHARSET=ISO-8859-1>\xE9", "<HTML><META CHARSET=ISO-8859-1>\u00e9", {}},
        // Bytes that are no UTF-8 keep it too.
        {"<html><meta charset=utf-8>\xE9", "<html><meta charset=utf-8>\u00e9", {}},
        {"<html><body>\xE9", "<html><body>\u00e9", {}},
        {QByteArray("\0<\0h\0t\0m\0l\0>", 12), "<html>", {"no HTML in Latin"}},
        {"plain", "plain", {"no HTML in Latin", "no HTML in Unicode"}}};
    for (const auto &[data, text, logged] : pages) {
        LogCapture log;
        EXPECT_EQ(stringWithHTML(data), text) << data.toHex().constData();
        EXPECT_EQ(log.messages(), logged);
    }

    EXPECT_EQ(stringByExpandingHTMLEntities("<b>a&amp;b</b> &lt;&#x20AC;&eacute;"),
              "a&b <\u20ac\u00e9");
}

TEST(StringExtensionsTest, CodePointsOverUtf16) {
    const QString flag = stringWithUTF32Character(0xA0000 + 5 * 26 + 18);
    const std::pair<QString, unsigned> counts[] = {{flag, 2},
                                                   {"a" + u16({0xD83D, 0xDE00}), 2},
                                                   {u16({0xDC00, 0xD800}), 2},
                                                   {u16({0xD800}), 1},
                                                   {u16({0, 0}), 2}};
    for (const auto &[text, count] : counts) EXPECT_EQ(numberOfUnicodeCharacters(text), count);

    const QString mixed = u16({'a', 0xD83D, 0xDE00, 0xD800, 'b', 0xDC00, 0xD800});
    const std::pair<int, UTF32Char> at[] = {{0, 'a'},    {1, 0x1F600}, {2, 0xDE00}, {3, 0xD800},
                                            {6, 0xD800}, {7, 0},       {-1, 0}};
    for (const auto &[i, c] : at) EXPECT_EQ(longCharacterAtIndex(mixed, i), c) << i;
    // A high surrogate takes the unit behind it along when that is no partner.
    std::vector<UTF32Char> seen;
    forUTF32Characters(mixed, [&](UTF32Char c) { seen.push_back(c); });
    EXPECT_EQ(seen, (std::vector<UTF32Char>{'a', 0x1F600, 0xDC00}));
    EXPECT_EQ(UTF32SequenceString(mixed), "0061,1F600,DC00");
    EXPECT_EQ(UTF16SequenceString(u16({'a', 0xD83D, 0})), "0061,D83D,0000");

    for (const auto &[text, c] : {std::pair{u16({0xD83D, 0xDE00}), 0x1F600u}, {"ab", 0u}, {"", 0u}})
        EXPECT_EQ(UTF32Character(text), c) << text;
    EXPECT_EQ(stringWithUTF32Character(0), u16({0}));
    EXPECT_EQ(stringWithUTF32Character(0x1F600), u16({0xD83D, 0xDE00}));
}

TEST(StringExtensionsTest, VirtualCharacters) {
    // With no ligature defined, 0xB0005 is the value itself.
    const std::pair<UTF32Char, QString> sequences[] = {
        {0xA0000 + 5 * 26 + 18, "1F1EB,1F1F8"},
        {0xA1000, "0023,20E3"},
        {0xA100B, "0039,20E3"},
        {0xA0300, "1F636,200D,1F32B,FE0F"},
        {0xA0301, "1F62E,200D,1F4A8"},
        {0xA0303, "2764,FE0F,200D,1F525"},
        {0xA0300 + 182, "1F48F"},
        {0xA0300 + 183, "1F469,200D,2764,FE0F,200D,1F48B,200D,1F468"},
        {0xA0300 + 200, "1F468,200D,1F468,200D,1F467,200D,1F467"},
        {0xA0300 + 221, "1F3F4,200D,2620,FE0F"},
        {0xB0005, "B0005"}};
    for (const auto &[c, points] : sequences)
        EXPECT_EQ(UTF32SequenceString(stringWithUTF32Character(c)), points) << c;

    // The row lengths of the whole table.
    std::map<int, int> lengths;
    for (UTF32Char c = 0xA0300; c <= 0xA03DD; ++c) {
        int n = 0;
        for (const UTF32Char *p = utf32CharactersForVirtualCharacter(c); *p; ++p) ++n;
        ++lengths[n];
    }
    EXPECT_EQ(lengths,
              (std::map<int, int>{{1, 3}, {3, 72}, {4, 109}, {5, 23}, {6, 3}, {7, 9}, {8, 3}}));

    for (UTF32Char c : {0x9FFFFu, 0xA02A4u, 0xA03DEu, 0xA100Cu, 0xBFFFFu, 0xA0FFFu})
        EXPECT_FALSE(isVirtualCharacter(c)) << std::hex << c;
    for (UTF32Char c :
         {0xA0000u, 0xA02A3u, 0xA0300u, 0xA03DDu, 0xA1000u, 0xA100Bu, 0xB0000u, 0xBFFFEu})
        EXPECT_TRUE(isVirtualCharacter(c)) << std::hex << c;

    // The table lookup spells flags itself, apart from the string's own path.
    const UTF32Char *flag = utf32CharactersForVirtualCharacter(0xA0000 + 27);
    ASSERT_NE(flag, nullptr);
    EXPECT_EQ(std::vector<UTF32Char>(flag, flag + 3),
              (std::vector<UTF32Char>{0x1F1E7, 0x1F1E7, 0}));
    EXPECT_EQ(utf32CharactersForVirtualCharacter(0xB0000), nullptr);
    EXPECT_EQ(utf32CharactersForVirtualCharacter('a'), nullptr);

    defineLigatures({"ffi", "\u00e6"});
    EXPECT_EQ(stringWithUTF32Character(0xB0000), "ffi");
    EXPECT_EQ(stringWithUTF32Character(0xB0001), "\u00e6");
    EXPECT_EQ(UTF32SequenceString(stringWithUTF32Character(0xB0002)), "B0002");
    EXPECT_EQ(utf32CharactersForVirtualCharacter(0xB0000), nullptr);
    defineLigatures({});
    EXPECT_EQ(UTF32SequenceString(stringWithUTF32Character(0xB0000)), "B0000");
}

TEST(StringExtensionsTest, SkinColours) {
    const QString thumbs = u16({0xD83D, 0xDC4D});
    const QString medium = emojiStringWithSkinColor(thumbs, 3);
    EXPECT_EQ(UTF32SequenceString(medium), "1F44D,1F3FC");
    EXPECT_TRUE(sameData(emojiStringWithSkinColor(medium, 3), medium));
    EXPECT_EQ(UTF32SequenceString(emojiStringWithSkinColor(medium, 5)), "1F44D,1F3FE");
    EXPECT_EQ(emojiStringWithSkinColor(thumbs, 1), emojiStringWithSkinColor(thumbs, 2));
    // Removing a modifier leaves U+0000 in its place.
    EXPECT_EQ(UTF32SequenceString(emojiStringWithSkinColor(medium, 0)), "1F44D,0000");
    EXPECT_EQ(UTF32SequenceString(emojiStringWithSkinColor(medium, 9)), "1F44D,0000");
    // The variation selector before a joiner gives way to the modifier.
    const QString detective = u16({0xD83D, 0xDD75, 0xFE0F, 0x200D, 0x2642, 0xFE0F});
    EXPECT_EQ(UTF32SequenceString(emojiStringWithSkinColor(detective, 4)),
              "1F575,1F3FD,200D,2642,FE0F");
    EXPECT_EQ(UTF32SequenceString(emojiStringWithSkinColor("a", 6)), "0061,1F3FF");
    // Shorter than three units: a modifier is never found, so one is added.
    const QString bare = u16({0xD83C, 0xDFFB});
    EXPECT_EQ(UTF32SequenceString(emojiStringWithSkinColor(bare, 3)), "1F3FB,1F3FC");
    EXPECT_EQ(UTF16SequenceString(emojiStringWithSkinColor(u16({0xD800}), 3)), "D800,D83C,DFFC");
}

// The default (US) keymap of a real X server, and the same passed on by a
// Wayland compositor to a client without an X display; with neither (or a
// compositor that is not there, or a FIFO in its place) there is nothing to
// ask.
TEST(StringExtensionsTest, KeyNamesOfTheCurrentLayout) {
    const QString fifo = TestEnvironment::makeTempDir("keymap") + "/fifo";
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    for (const QString &compositor : {QString(""), QString("kv-no-such-compositor"), fifo}) {
        ScopedEnv noDisplay("DISPLAY", std::nullopt);
        ScopedEnv noCompositor("WAYLAND_DISPLAY", QFile::encodeName(compositor));
        EXPECT_EQ(stringWithVirtualKeyCode(0, 0), "<ERR>") << compositor;
    }
    {
        WaylandSession wayland;
        const QString error = wayland.start(WaylandSession::Clients::Native, true);
        ASSERT_TRUE(error.isEmpty()) << error;
        const std::tuple<uint16_t, uint32_t, QString> keys[] = {
            {0x00, 0, "a"},     {0x00, 0x02, "A"},  {0x00, 0x04, "A"},   {0x12, 0, "1"},
            {0x12, 0x02, "!"},  {0x31, 0, " "},     {0x2C, 0x02, "?"},   {0x43, 0, "*"},
            {0x34, 0, "<ERR>"}, {0x7A, 0, "<ERR>"}, {0xFFFF, 0, "<ERR>"}};
        for (const bool compositor : {false, true}) {
            const auto scope =
                compositor ? wayland.clientScope() : decltype(wayland.clientScope()){};
            for (const auto &[code, modifiers, text] : keys)
                EXPECT_EQ(stringWithVirtualKeyCode(code, modifiers), text)
                    << code << " " << modifiers << " " << compositor;
        }
    }
    XSession::stop();
}

TEST(StringExtensionsTest, WildcardPatterns) {
    const std::tuple<QString, QString, bool> rows[] = {
        {"abc", "abc", true},    {"abc", "a*", true},     {"abc", "*c", true},
        {"abc", "a*c", true},    {"abc", "*", true},      {"abc", "**", true},
        {"abc", "*b*", true},    {"abc", "ab", false},    {"abc", "b*", false},
        {"ab", "ab*b", false},   {"abb", "ab*b", true},   {"aXbXc", "a*b*c", true},
        {"acb", "a*b*c", false}, {"ABC", "abc", false},   {"", "*", true},
        {"", "", true},          {"abcbc", "a*bc", true}, {"abab", "*ab*ab", true},
        {"aab", "a*ab", true}};
    for (const auto &[text, pattern, matches] : rows)
        EXPECT_EQ(matchesWildcardPattern(text, pattern), matches) << text << " ~ " << pattern;
}

TEST(StringExtensionsTest, RegexReplacement) {
    const std::tuple<QString, QString, QString, QString> rows[] = {
        {"2024-03-07", "(\\d+)-(\\d+)-(\\d+)", "$3.$2.$1", "07.03.2024"},
        {"a b  c", "\\s+", "_", "a_b_c"},
        {"price", "\\$", "x", "price"},
        {"ab", "b", "\\$1", "a$1"},
        {"can't stop", "\\b\\w+\\b", "<$0>", "can't <stop>"}};  // "can't" is one word
    for (const auto &[text, pattern, templ, out] : rows) {
        EXPECT_EQ(stringByReplacingOccurrencesOfRegexPattern(text, pattern, templ), out) << pattern;
        QString m = text;
        replaceOccurrencesOfRegexPattern(m, pattern, templ);
        EXPECT_EQ(m, out);
    }
}

// A bad pattern or template, or one that would backtrack without end,
// leaves the text alone and logs the error on every call.
TEST(StringExtensionsTest, RegexErrorsLeaveTheTextAlone) {
    const QString runaway = QString(40, u'a') + "!";
    const std::tuple<QString, QString, QString> rows[] = {
        {"abc", "(", "x"}, {"abc", "b", "$9"}, {runaway, "(a+)+$", "x"}, {runaway, "(a|aa)+$", ""}};
    for (const auto &[text, pattern, templ] : rows) {
        LogCapture log;
        const QString result = stringByReplacingOccurrencesOfRegexPattern(text, pattern, templ);
        EXPECT_TRUE(sameData(result, text)) << pattern;
        QString m = text;
        replaceOccurrencesOfRegexPattern(m, pattern, templ);
        EXPECT_EQ(m, text);
        const QStringList lines = log.messages();
        ASSERT_EQ(lines.size(), 2) << lines.join('\n');
        for (const QString &line : lines)
            EXPECT_TRUE(line.startsWith("Regular expression error: "));
    }
}
