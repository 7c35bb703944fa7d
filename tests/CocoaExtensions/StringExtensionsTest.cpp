#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QProcess>
#include <cmath>

#include "LogCapture.h"
#include "QStringStream.h"
#include "StringExtensions.h"
#include "TestEnvironment.h"

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
    return QString::fromLatin1(TestEnvironment::readFile(path));
}

// Each row's input through the function gives the row's output.
template <typename In, typename Out, typename F>
void expectRows(F function, std::initializer_list<std::pair<In, Out>> rows) {
    for (const auto &[in, out] : rows) EXPECT_EQ(function(in), out) << testing::PrintToString(in);
}

}  // namespace

// clang-format off
TEST(StringExtensionsTest, TrimmingLinesRepeatsAndDigests) {
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
    // Process hashes: only the bytes before the first zero count.
    EXPECT_EQ(MD5String(u16({'a', 'b', 'c', 0, 'x'})), "900150983cd24fb0d6963f7d28e17f72");
    // What scripts and settings hold: too large a number saturates; a '%' without two hex
    // digits, or bytes that are no UTF-8, leave the whole text as it is.
    expectRows<QString, long>(numericValue, {{"0x10", 16}, {"010", 8}, {" -42z", -42},
        {"99999999999999999999", LONG_MAX}});
    expectRows<QString, bool>(booleanValue, {{"yes", true}, {" -3", true}, {"N1", false},
        {"", false}});
    expectRows<QString, QString>(stringWithExpandedPercentEscapes, {{"%41%c3%a9", u16({'A', 0xE9})},
        {"50% %41", "50% %41"}, {"%FF", "%FF"}});
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
    // Only bytes the file has count: FF FE alone is UTF-16, FF FE 00 00 UTF-32.
    // Decoding skips the mark.
    const auto mark = [](const QByteArray &b) { return explicitEncodingOfFile(writeTemp(b), {}); };
    expectRows<QByteArray, NSStringEncoding>(mark, {{"\xFF\xFE", NSUTF16LittleEndianStringEncoding},
        {QByteArray("\xFF\xFE\x00\x00", 4), NSUTF32LittleEndianStringEncoding}});
    EXPECT_EQ(stringWithData("\xEF\xBB\xBFx", NSUTF8StringEncoding), "x");
    // Strict: an overlong zero or a surrogate in UTF-8 is no text, never replacement characters.
    for (const char *bytes : {"\xC0\x80", "\xED\xA0\x80", "ab\xE2\x82"})
        EXPECT_TRUE(stringWithData(bytes, NSUTF8StringEncoding).isNull())
            << QByteArray(bytes).toHex().constData();
    const auto factor = [](const QString &s) { return reasonableTextFactor(s, "x"); };
    expectRows<QString, float>(factor, {{QString(9, u'a') + QChar(0x0378), -0.1f}, {"\t\n\r \x01", 0.6f},
        {u16({0x0301, 0x0663, 0xD800}), 2.0f / 3.0f}});
    EXPECT_TRUE(std::isnan(reasonableTextFactor("", "x")));
}

// clang-format on

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
