#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <QFile>
#include <QStringEncoder>
#include <QTextDocument>
#include <QTextTable>

#include "KVDocumentReader.h"
#include "Relaunch.h"
#include "TestEnvironment.h"

namespace {
class KVDocumentReaderTest : public testing::Test {
protected:
    // Writes the bytes under the name and reads them; the document's plain text.
    QString readAs(const QString &name, const QByteArray &bytes) {
        const QString path = folder + "/" + name;
        EXPECT_TRUE(TestEnvironment::writeFile(path, bytes));
        EXPECT_TRUE(KVDocumentReader::read(path, &document)) << qPrintable(name);
        return document.toPlainText();
    }
    bool isBold(const QString &word) {
        return document.find(word).charFormat().fontWeight() == QFont::Bold;
    }
    QString folder = TestEnvironment::makeTempDir("document");
    QTextDocument document;
};
using KVDocumentReaderFormatTest = KVDocumentReaderTest;
using KVDocumentReaderDecodingTest = KVDocumentReaderTest;
using KVDocumentReaderFailureTest = KVDocumentReaderTest;
}  // namespace

TEST_F(KVDocumentReaderFormatTest, HtmlIsRenderedWhateverTheExtensionsCase) {
    for (const char *name : {"a.html", "b.HTM", "c.xhtml"}) {
        EXPECT_EQ(readAs(name, "<html><body><p>Hello <b>bold</b></p></body></html>"), "Hello bold");
        EXPECT_TRUE(isBold("bold")) << name;
    }
}

TEST_F(KVDocumentReaderFormatTest, MarkdownIsRenderedInTheGitHubDialect) {
    EXPECT_EQ(readAs("ReadMe.md", "# Title\n\nSome **strong** text.\n\n| a | b |\n|---|---|\n"),
              "Title\nSome strong text.\na\nb\n");
    EXPECT_TRUE(isBold("strong"));
    EXPECT_EQ(document.firstBlock().blockFormat().headingLevel(), 1);
    const QList<QTextFrame *> frames = document.rootFrame()->childFrames();
    EXPECT_TRUE(frames.size() == 1 && qobject_cast<QTextTable *>(frames[0]));
    EXPECT_EQ(readAs("ReadMe.markdown", "*x*"), "x");
}

TEST_F(KVDocumentReaderFormatTest, RtfShowsItsTextNeverItsCode) {
    EXPECT_EQ(readAs("ReadMe.RTF",
                     "{\\rtf1\\ansi{\\fonttbl\\f0 Helvetica;}\\f0 Caf\\'e9 "
                     "{\\b bold}\\par}"),
              QString::fromUtf8("Café bold\n"));
    EXPECT_TRUE(isBold("bold"));
}

TEST_F(KVDocumentReaderFormatTest, WithoutAKnownExtensionTheContentDecides) {
    EXPECT_EQ(readAs("README", "{\\rtf1 rich}"), "rich");
    EXPECT_EQ(readAs("ReadMe.doc", "\xEF\xBB\xBF \n<!DOCTYPE html><p>web</p>"), "web");
    EXPECT_EQ(readAs("ReadMe", "<HTML><body>upper</body></HTML>"), "upper");
    EXPECT_EQ(readAs("ReadMe.1", "plain <b>text</b>"), "plain <b>text</b>");
    EXPECT_EQ(readAs("ReadMe.txt", "<html>{\\rtf1 **x**"), "<html>{\\rtf1 **x**");
}

TEST_F(KVDocumentReaderDecodingTest, ByteOrderMarksChooseTheEncodingAndAreNotShown) {
    const QString text = QString::fromUtf8("Grüße €");
    const auto withBom = [&](QStringConverter::Encoding encoding) {
        return QByteArray(QStringEncoder(encoding, QStringConverter::Flag::WriteBom)(text));
    };
    EXPECT_EQ(readAs("le.txt", withBom(QStringConverter::Utf16LE)), text);
    EXPECT_EQ(readAs("be", withBom(QStringConverter::Utf16BE)), text);
    EXPECT_EQ(readAs("utf8.txt", withBom(QStringConverter::Utf8)), text);
}

TEST_F(KVDocumentReaderDecodingTest, InvalidUtf8FallsBackToAWesternCodePage) {
    EXPECT_EQ(readAs("valid.txt", QString::fromUtf8("Grüße").toUtf8()), QString::fromUtf8("Grüße"));
    EXPECT_EQ(readAs("latin1.txt",
                     "Gr\xFC\xDF"
                     "e caf\xE9"),
              QString::fromUtf8("Grüße café"));
    EXPECT_EQ(readAs("latin1.md", "caf\xE9"), QString::fromUtf8("café"));
}

TEST_F(KVDocumentReaderDecodingTest, HtmlHonoursItsDeclaredCharset) {
    EXPECT_EQ(readAs("w.html",
                     "<html><head><meta charset=\"windows-1252\"></head>"
                     "<body>\x80 caf\xE9</body></html>"),
              QString::fromUtf8("€ café"));
    EXPECT_EQ(readAs("u.html", "<html><body>" + QString::fromUtf8("€ café").toUtf8()),
              QString::fromUtf8("€ café"));
}

TEST_F(KVDocumentReaderFailureTest, WhatCannotBeReadGivesFalseAndAnEmptyDocument) {
    TestEnvironment::writeFile(folder + "/huge.txt", "");
    QFile(folder + "/huge.txt").resize(KVDocumentReader::kMaximumFileSize + 1);
    mkfifo(QFile::encodeName(folder + "/fifo").constData(), 0600);
    for (const char *name : {"missing.txt", "", "huge.txt", "fifo"}) {
        document.setPlainText("previous");
        EXPECT_FALSE(KVDocumentReader::read(folder + "/" + name, &document)) << name;
        EXPECT_TRUE(document.isEmpty()) << name;
    }
    EXPECT_FALSE(KVDocumentReader::read(folder, nullptr));
}

TEST_F(KVDocumentReaderFailureTest, AnEmptyFileIsAnEmptyDocument) {
    for (const char *name : {"e.txt", "e.rtf", "e.html", "e.md", "e"}) {
        document.setPlainText("previous");
        EXPECT_EQ(readAs(name, ""), "");
    }
}

TEST_F(KVDocumentReaderFailureTest, AFileTheUserMayNotReadIsRefused) {
    if (Relaunch::isRoot()) {
        // Root reads anything; the case is seen as an unprivileged user.
        if (Relaunch::isCopy() || !getpwnam(qPrintable(Relaunch::unprivilegedUser())))
            GTEST_SKIP() << "needs the unprivileged test user";
        QString output;
        const int status = Relaunch::runCopy(
            folder + "/bin/tests", "KVDocumentReaderFailureTest.AFileTheUserMayNotReadIsRefused",
            Relaunch::unprivilegedUser(), &output);
        EXPECT_EQ(status, 0) << qPrintable(output);
        EXPECT_TRUE(output.contains("[  PASSED  ] 1 test")) << qPrintable(output);
        return;
    }
    TestEnvironment::writeFile(folder + "/secret.txt", "secret");
    QFile::setPermissions(folder + "/secret.txt", QFileDevice::Permissions());
    EXPECT_FALSE(KVDocumentReader::read(folder + "/secret.txt", &document));
    EXPECT_TRUE(document.isEmpty());
}
