// Read-me documents from real files, as word processors (or hostile hands) write them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFile>
#include <QStringEncoder>
#include <QTextDocument>

#include "KVDocumentReader.h"
#include "KVRTFReader.h"
#include "TestEnvironment.h"

// A read-me shows its text, never its markup or code, and never mojibake; a
// FIFO is never waited on.
TEST(KVDocumentReaderTest, RendersEachFormatAndEncodingAsItsText) {
    const QString folder = TestEnvironment::makeTempDir("document");
    const QString greeting = QString::fromUtf8("Grüße €");
    const QByteArray western("Gr\xFC\xDF\x65 \x80");  // the greeting in Windows-1252
    const std::tuple<const char *, QByteArray, QString> cases[] = {
        // The extension decides, whatever its case; Markdown is GitHub's (tables).
        {"a.HTM", "<html><body><p>Hello <b>bold</b></p></body></html>", "Hello bold"},
        {"ReadMe.md", "# *Grüße*\n\n| a | b |\n|---|---|\n", QString::fromUtf8("Grüße\na\nb\n")},
        {"ReadMe.txt", "<html>{\\rtf1 **x**", "<html>{\\rtf1 **x**"},
        // Else the start of the content does.
        {"README", "{\\rtf1 rich}", "rich"},
        {"ReadMe.doc", "\xEF\xBB\xBF \n<!DOCTYPE html><p>web</p>", "web"},
        // A byte-order mark chooses the encoding, unshown; no UTF-8 is
        // Windows-1252; HTML honours its declared charset.
        {"be",
         QStringEncoder(QStringConverter::Utf16BE, QStringConverter::Flag::WriteBom)(greeting),
         greeting},
        {"latin1.txt", western, greeting},
        {"w.html", "<html><head><meta charset=\"windows-1252\"></head><body>" + western, greeting},
        {"u.html", "<html><body>" + greeting.toUtf8(), greeting},
        {"e.rtf", "", ""}};
    QTextDocument document;
    for (const auto &[name, bytes, text] : cases) {
        ASSERT_TRUE(TestEnvironment::writeFile(folder + "/" + name, bytes));
        EXPECT_TRUE(KVDocumentReader::read(folder + "/" + name, &document)) << name;
        EXPECT_EQ(document.toPlainText(), text) << name;
    }
    // What cannot be read leaves nothing of the document read before.
    ASSERT_EQ(mkfifo(QFile::encodeName(folder + "/fifo").constData(), 0600), 0);
    ASSERT_TRUE(TestEnvironment::writeFile(folder + "/huge.txt", "") &&
                QFile::resize(folder + "/huge.txt", KVDocumentReader::kMaximumFileSize + 1));
    for (const char *name : {"fifo", "missing.txt", "huge.txt"}) {
        document.setPlainText("previous");
        EXPECT_FALSE(KVDocumentReader::read(folder + "/" + name, &document) || !document.isEmpty())
            << name;
    }
}

// No code, fallback, hidden or non-text destination leaks into the text, and
// malformed input gives what text it can. Deep groups are cut off, keeping
// the text around them, so the stack holds.
TEST(KVRTFReaderTest, ShowsExactlyTheDocumentsText) {
    const QByteArray deep = QByteArray(100000, '{') + "deep" + QByteArray(100000, '}');
    const QByteArray cases[][2] = {
        // A word processor's tables, styles, generator and info, CR LF.
        {"{\\rtf1\\ansi{\\fonttbl{\\f0\\fnil Calibri{\\*\\panose 0202};}}\r\n{\\colortbl ;\\red255;}"
         "{\\stylesheet{\\s0 Normal;}}{\\info{\\title Read Me}}{\\*\\generator Editor 1.0}\r\n"
         "\\pard\\sa200\\f0 Caf\\'e9 \\u8364?.\\par\r\n\\b Bold\\b0  text.\\par\r\n}\r\n",
         "Café €.\nBold text.\n"},
        {"{\\rtf1 a\\\\b\\{c\\}d\\~e\\-f\\_g\\tab h\\line i\\\nj}",
         "a\\b{c}d\u00A0e\u00ADf\u2011g\th\ni\nj"},
        {"{\\rtf1 x\\fs24y\\unknown-12 z 1\\cell 2\\cell\\row 3}", "xyz 1\t2\t\n3"},
        // \uN skips as many fallback characters as \ucN says; a negative N is half a pair.
        {"{\\rtf1 \\u8364?\\uc2\\u8364\\'80\\'81x\\uc0\\u8364 y\\u-10179\\u-8704}", "€€x€y😀"},
        // Hex bytes are in the document's code page, or the font's.
        {"{\\rtf1{\\fonttbl{\\f0 A;}{\\f1\\fcharset204 B;}}\\'e9{\\f1 \\'e9}\\'e9}", "éйé"},
        {"{\\rtf1\\ansi\\ansicpg932 \\'82\\'a0}", "あ"},
        {"{\\rtf1 {\\field{\\*\\fldinst HYPERLINK \"http://x\"}{\\fldrslt link}}}", "link"},
        {"{\\rtf1 {\\header H}{\\footer F}a{\\footnote N}b{\\v hidden}c}", "abc"},
        {"{\\rtf1 {\\pict\\pngblip 89504e47}{\\*\\unknowndest z}c\\bin4 {}\\\\d}", "cd"},
        // clang-format off
        {"{\\rtf1 {\\b open", "open"}, {"{\\rtf1 a}}}b", "a"}, {"{\\rtf1 x\\", "x"},
        {"{\\rtf1 x\\'4", "x4"}, {"{\\rtf1 x\\bin99999", "x"},
        {"{\\rtf1 x\\bin-3 y\\uc-5\\u65 z", "xyAz"}, {"{\\rtf1 x\\u99999999999999999999?", "x\uFFFF"},
        {"{\\rtf1 before " + deep + " after}", "before  after"}};
    // clang-format on
    for (const auto &[rtf, text] : cases)
        EXPECT_EQ(KVRTFReader::toPlainText(rtf), QString::fromUtf8(text)) << rtf.left(80).data();
    QTextDocument document;
    KVRTFReader::read("{\\rtf1 x" + QByteArray(100000, '{') + "\\b y", &document);
    EXPECT_EQ(document.toPlainText(), "x");
}
