// Format strings and log lines, compared byte for byte.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QProcess>
#include <QRegularExpression>
#include <QTranslator>
#include <clocale>
#include <thread>

#include "KVBundle.h"
#include "KVFormat.h"
#include "KVLocalization.h"
#include "KVLog.h"
#include "KVPropertyList.h"
#include "KVUserDefaults.h"
#include "LogCapture.h"
#include "TestEnvironment.h"

TEST(KVFormatTest, FillsEachConversionAsThePlatformDoes) {
    const QString cases[][2] = {
        // Top-level strings print as they are, never quoted.
        {kvFormat("%2$@ %1$@, %1$@ [%@]", QString("a"), QString("b \"c\" ü")),
         "b \"c\" ü a, a [a]"},
        {kvFormat("%@|%s|%@ %d|%4$@", QString(), static_cast<const char *>(nullptr)),
         "(null)|(null)|(null) 0|(null)"},
        {kvFormat("%d|%ld|%ld|%s", -7, qint64(5000000000LL), INT64_MIN, "c"),
         "-7|5000000000|-9223372036854775808|c"},
        {kvFormat("%hhd|%.0s|%.2s", 300, "abc", "abc"), "44||ab"},
        // "%X" takes a 32-bit int, as in C: a sign-extended char shows 32 bits.
        {kvFormat("%X|%02X|%02X", 0xBEEFu, 5, int(int8_t(0xE9))), "BEEF|05|FFFFFFE9"},
        {kvFormat("%1.1f|%1.1f|%1.3f|%1.3f", 2.5, 10.0, 0.1234, 1.5), "2.5|10.0|0.123|1.500"},
        {kvFormat("%d%% of %@ at 50%l", 50, QString("x")), "50% of x at 50%l"},
        // Sorted keys, four-space indents, quotes and escapes but for plain words.
        {kvFormat("<%@>", QStringList{}), "<(\n)>"},
        {kvFormat("%@", QVariantMap{{"b", 2}, {"a", true}, {"C", "c"}, {"", QStringList{"AB"}}}),
         "{\n    \"\" =     (\n        AB\n    );\n    C = c;\n    a = 1;\n    b = 2;\n}"},
        {kvFormat("%@", QStringList{"Plain_Word$9", "", "a-b", "say \"hi\"", "C:\\dir",
                                    "two\nlines", "Grüße €"}),
         "(\n    Plain_Word$9,\n    \"\",\n    \"a-b\",\n    \"say \\\"hi\\\"\",\n    "
         "\"C:\\\\dir\",\n    \"two\\nlines\",\n    \"Gr\\U00fc\\U00dfe \\U20ac\"\n)"}};
    for (const auto &c : cases) EXPECT_EQ(c[0], c[1]);
}

// The user's German locale would write and read "2,5" into logs, defaults and
// property lists; the machine's may lack German, so one is made.
TEST(KVFormatTest, WritesAndReadsRealsWithAPointUnderAGermanLocale) {
    const QByteArray saved = std::setlocale(LC_NUMERIC, nullptr);
    const QString folder = TestEnvironment::makeTempDir("locale");
    QProcess::execute("localedef", {"-i", "de_DE", "-f", "UTF-8", folder + "/de_DE.UTF-8"});
    qputenv("LOCPATH", QFile::encodeName(folder));
    const bool german = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
    const QString text = kvFormat("%1.1f %1.3f", 2.5, 1.0 / 3);
    const double value = KVUserDefaults::doubleValue("0.35");
    const QByteArray xml = KVPropertyList::toData(QVariantList{2.5}, KVPropertyList::Format::Xml);
    const QVariant read = KVPropertyList::fromData(xml).toList().value(0);
    std::setlocale(LC_NUMERIC, saved.constData());
    qunsetenv("LOCPATH");
    if (!german) GTEST_SKIP() << "localedef could not make a German locale";
    EXPECT_EQ(text + " " + QString::number(value), "2.5 0.333 0.35");
    EXPECT_TRUE(xml.contains("<real>2.5</real>") && read == 2.5) << xml.constData();
}

// One newline per line even when the message brings its own; two threads'
// long lines arrive whole.
TEST(KVLogTest, WritesWholeLinesInThePlatformFormatFromAnyThread) {
    const QRegularExpression time(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
    const auto isLogLine = [&](const QString &line, long thread, const QString &message) {
        const QString process = QString("FoundationTests[%1:%2] ").arg(getpid()).arg(thread);
        return line.contains(time) && line.mid(24) == process + message;
    };
    LogCapture log;
    kvLog("Installed %@ (%d)", QString("P"), 3);
    KVLog::writeLine("done\n");
    const QString fill(2000, QLatin1Char('x'));
    long threads[2] = {};
    const auto writer = [&](int n) {
        threads[n] = gettid();
        for (int i = 0; i < 200; ++i) kvLog("thread %d line %d %@", n, i, fill);
    };
    std::thread first(writer, 0), second(writer, 1);
    first.join();
    second.join();
    const QStringList lines = log.text().split('\n');
    ASSERT_EQ(lines.size(), 2 + 400 + 1);
    EXPECT_TRUE(isLogLine(lines[0], gettid(), "Installed P (3)")) << qPrintable(lines[0]);
    EXPECT_TRUE(isLogLine(lines[1], gettid(), "done")) << qPrintable(lines[1]);
    int seen[2] = {};
    for (qsizetype i = 2; i + 1 < lines.size(); ++i) {
        const int n = lines[i].contains("] thread 1 ") ? 1 : 0;
        const QString message = QString("thread %1 line %2 %3").arg(n).arg(seen[n]++).arg(fill);
        ASSERT_TRUE(isLogLine(lines[i], threads[n], message)) << qPrintable(lines[i].left(120));
    }
}

// The installer's shipped German table loads by its name and translates format
// strings; a missing table is reported, and other keys (null too) show themselves.
TEST(KVLocalizationTest, TheInstallersTableTranslatesAndOtherKeysShowThemselves) {
    const std::optional<KVBundle> bundle = KVBundle::bundleWithPath(KV_INSTALLER_APP);
    ASSERT_TRUE(bundle);
    const QLocale german(QLocale::German, QLocale::Germany);
    const QList<QTranslator *> before = qApp->findChildren<QTranslator *>();
    EXPECT_TRUE(KVLocalization::localizedString(QString()).isNull());
    EXPECT_FALSE(KVLocalization::installTranslations(*bundle, "NoSuchTable", german));
    EXPECT_EQ(KVLocalization::localizedString("Install"), "Install");
    ASSERT_TRUE(KVLocalization::installTranslations(*bundle, "Installer", german));
    EXPECT_EQ(
        kvFormat(KVLocalization::localizedString("%@ was successfully installed."), QString("P")),
        "P wurde erfolgreich installiert.");
    EXPECT_EQ(KVLocalization::localizedString("Grüße, %@"), "Grüße, %@");
    for (QTranslator *translator : qApp->findChildren<QTranslator *>()) {
        if (before.contains(translator)) continue;
        QCoreApplication::removeTranslator(translator);  // later tests run untranslated
        delete translator;
    }
}
