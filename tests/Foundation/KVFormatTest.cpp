#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QVariantMap>
#include <clocale>
#include <cstdint>

#include "KVFormat.h"
#include "KVPropertyList.h"
#include "KVUserDefaults.h"
#include "TestEnvironment.h"

TEST(KVFormatTest, FillsObjectsInOrderAndByPosition) {
    EXPECT_EQ(kvFormat("Installing %@…", QString("P")), "Installing P…");
    EXPECT_EQ(kvFormat("%2$@ %1$@, %1$@", QString("a"), QString("b")), "b a, a");
    // Top-level strings print as they are, never quoted.
    EXPECT_EQ(kvFormat("[%@]", QString("say \"hi\" ü")), "[say \"hi\" ü]");
}

TEST(KVFormatTest, PrintsNullForANullStringOrAMissingArgument) {
    EXPECT_EQ(kvFormat("%@", QString()), "(null)");
    EXPECT_EQ(kvFormat("%s", static_cast<const char *>(nullptr)), "(null)");
    EXPECT_EQ(kvFormat("%@ %@ %d|%3$@", QString("one")), "one (null) 0|(null)");
}

TEST(KVFormatTest, FillsNumbersAndCStringsLikeC) {
    const QString cases[][2] = {
        {kvFormat("%d|%d", 42, -7), "42|-7"},
        {kvFormat("%ld", qint64(5000000000LL)), "5000000000"},
        {kvFormat("%ld", INT64_MIN), "-9223372036854775808"},
        {kvFormat("%s!", "hello"), "hello!"},
        {kvFormat("%X|%X", 255, 0xBEEFu), "FF|BEEF"},
        {kvFormat("%02X|%02X", 5, 0xAB), "05|AB"},
        // "%X" takes a 32-bit int, as in C: a sign-extended char shows 32 bits.
        {kvFormat("%02X", int(int8_t(0xE9))), "FFFFFFE9"},
        {kvFormat("%1.1f|%1.1f", 2.5, 10.0), "2.5|10.0"},
        {kvFormat("%1.3f|%1.3f", 0.1234, 1.5), "0.123|1.500"},
        {kvFormat("%d%% of %@", 50, QString("x")), "50% of x"},
        // An incomplete specification at the end prints as it stands.
        {kvFormat("100%"), "100%"},
        {kvFormat("%@ at 50%l", QString("x")), "x at 50%l"}};
    for (const auto &c : cases) EXPECT_EQ(c[0], c[1]);
}

TEST(KVFormatTest, DescribesListsAndSortedDictionariesLikeThePlatform) {
    EXPECT_EQ(kvFormat("%@", QStringList{"a", "b c"}), "(\n    a,\n    \"b c\"\n)");
    EXPECT_EQ(kvFormat("<%@>", QStringList{}), "<(\n)>");
    const QVariantMap map{{"productCode", QStringList{"ABCD"}}, {"", "/x"}};
    EXPECT_EQ(kvFormat("%@", map),
              "{\n    \"\" = \"/x\";\n    productCode =     (\n        ABCD\n    );\n}");
    const QVariantMap scalars{{"b", 2}, {"a", true}, {"C", QString("c")}};
    EXPECT_EQ(kvFormat("%@", scalars), "{\n    C = c;\n    a = 1;\n    b = 2;\n}");
}

TEST(KVFormatTest, QuotesAndEscapesStringsThatAreNoPlainWords) {
    const QString cases[][2] = {{"Plain_Word$9", "Plain_Word$9"},
                                {"", "\"\""},
                                {"a.b", "\"a.b\""},
                                {"a-b", "\"a-b\""},
                                {"say \"hi\"", "\"say \\\"hi\\\"\""},
                                {"C:\\dir", "\"C:\\\\dir\""},
                                {"two\nlines", "\"two\\nlines\""},
                                {"Grüße €", "\"Gr\\U00fc\\U00dfe \\U20ac\""}};
    for (const auto &c : cases)
        EXPECT_EQ(kvFormat("%@", QStringList{c[0]}), "(\n    " + c[1] + "\n)")
            << c[0].toStdString();
}

namespace {
// Switches LC_NUMERIC to German, building the locale into the private test
// folder when the system has none installed.
bool useGermanNumbers() {
    if (std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) return true;
    const QString folder = TestEnvironment::root() + "/locales";
    QDir().mkpath(folder);
    QProcess localedef;
    localedef.start("localedef", {"-i", "de_DE", "-f", "UTF-8", folder + "/de_DE.UTF-8"});
    localedef.waitForFinished(60000);
    qputenv("LOCPATH", QFile::encodeName(folder));
    return std::setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr;
}
}  // namespace

// The application object adopts the user's locale, in which C writes and reads
// "2,5"; texts, defaults and property lists keep the point all the same.
TEST(KVFormatTest, WritesAndReadsRealsWithAPointUnderAGermanLocale) {
    const QByteArray savedLocale = std::setlocale(LC_NUMERIC, nullptr);
    const QByteArray savedPath = qgetenv("LOCPATH");
    const bool german = useGermanNumbers();
    const QString text = kvFormat("%1.1f %1.3f", 2.5, 1.0 / 3);
    const double value = KVUserDefaults::doubleValue("0.35");
    const QByteArray xml = KVPropertyList::toData(QVariantList{2.5}, KVPropertyList::Format::Xml);
    const QVariant read = KVPropertyList::fromData(xml);
    savedPath.isNull() ? qunsetenv("LOCPATH") : qputenv("LOCPATH", savedPath);
    std::setlocale(LC_NUMERIC, savedLocale.constData());
    if (!german) GTEST_SKIP() << "no German locale, and localedef could not make one";
    EXPECT_EQ(text, "2.5 0.333");
    EXPECT_DOUBLE_EQ(value, 0.35);
    EXPECT_TRUE(xml.contains("<real>2.5</real>")) << xml.constData();
    EXPECT_EQ(read, QVariant(QVariantList{2.5}));
}
