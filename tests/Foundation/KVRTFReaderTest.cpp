#include <gtest/gtest.h>

#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <random>

#include "KVRTFReader.h"

namespace {
struct Case {
    const char *rtf;
    const char *text;
};

void expectTexts(std::initializer_list<Case> cases) {
    for (const Case &c : cases)
        EXPECT_EQ(KVRTFReader::toPlainText(c.rtf), QString::fromUtf8(c.text)) << c.rtf;
}

// The shape a word processor writes: tables, styles, generator and info
// before the body, CR LF line ends, accents as hex bytes.
const QByteArray kEditorDocument =
    "{\\rtf1\\ansi\\ansicpg1252\\deff0\\nouicompat\\deflang1031{\\fonttbl{\\f0\\fnil\\fcharset0 "
    "Calibri;}{\\f1\\froman\\fprq2\\fcharset0 Times New Roman{\\*\\panose 02020603050405020304};}}"
    "\r\n{\\colortbl ;\\red255\\green0\\blue0;}\r\n{\\stylesheet{\\s0 Normal;}}"
    "{\\info{\\author Someone}{\\title Read Me}}\r\n{\\*\\generator Editor 1.0}"
    "\\viewkind4\\uc1 \r\n\\pard\\sa200\\sl276\\slmult1\\f0\\fs22\\lang7 Caf\\'e9 costs 5 "
    "\\u8364?.\\par\r\n\\b Bold\\b0  and \\i italic\\i0  text.\\par\r\n}\r\n";
}  // namespace

TEST(KVRTFReaderTextTest, EditorOutputShowsExactlyItsText) {
    EXPECT_EQ(KVRTFReader::toPlainText(kEditorDocument),
              QString::fromUtf8("Café costs 5 €.\nBold and italic text.\n"));
}

TEST(KVRTFReaderTextTest, EscapesAndNamedCharactersBecomeTheirCharacters) {
    expectTexts(
        {{"{\\rtf1 a\\\\b\\{c\\}d}", "a\\b{c}d"},
         {"{\\rtf1 a\\~b\\-c\\_d}", "a\u00A0b\u00ADc\u2011d"},
         {"{\\rtf1 a\\tab b\\line c\\\nd}", "a\tb\nc\nd"},
         {"{\\rtf1 \\bullet\\endash\\emdash\\lquote\\rquote\\ldblquote\\rdblquote}", "•–—‘’“”"},
         {"{\\rtf1 x\\fs24y\\unknown-12 z}", "xyz"},
         {"{\\rtf1 1\\cell 2\\cell\\row 3}", "1\t2\t\n3"}});
}

TEST(KVRTFReaderTextTest, UnicodeEscapesSkipTheirFallback) {
    expectTexts({{"{\\rtf1 \\u8364?}", "€"},
                 {"{\\rtf1 \\uc2\\u8364\\'80\\'81x}", "€x"},
                 {"{\\rtf1 \\uc0\\u8364 x}", "€x"},
                 {"{\\rtf1 \\u-10179?\\u-8704?}", "😀"},
                 {"{\\rtf1 {\\uc0\\u8364}\\u8364?}", "€€"},
                 {"{\\rtf1 {\\uc3\\u8364 a}b}", "€b"}});
}

TEST(KVRTFReaderTextTest, HexBytesFollowTheDocumentAndFontCodePages) {
    expectTexts(
        {{"{\\rtf1\\ansi \\'e9\\'80}", "é€"},
         {"{\\rtf1\\ansi\\ansicpg1251 \\'e9}", "й"},
         {"{\\rtf1\\mac \\'8e}", "é"},
         {"{\\rtf1{\\fonttbl{\\f0 A;}{\\f1\\fcharset204 B;}}\\'e9{\\f1 \\'e9}\\'e9}", "éйé"},
         {"{\\rtf1\\ansi\\ansicpg932 \\'82\\'a0}", "あ"}});
}

TEST(KVRTFReaderTextTest, NonTextDestinationsAreLeftOut) {
    expectTexts(
        {{"{\\rtf1 {\\field{\\*\\fldinst HYPERLINK \"http://x\"}{\\fldrslt link}}}", "link"},
         {"{\\rtf1 {\\header H}{\\footer F}a{\\footnote N}b}", "ab"},
         {"{\\rtf1 {\\pict\\pngblip 89504e47}{\\*\\unknowndest z}c}", "c"},
         {"{\\rtf1 a\\bin4 {}\\\\b}", "ab"},
         {"{\\rtf1 a{\\v hidden}b}", "ab"}});
}

class KVRTFReaderFormattingTest : public testing::Test {
protected:
    QTextCharFormat formatOf(const QString &word) {
        const QTextCursor found = document.find(word);
        EXPECT_FALSE(found.isNull()) << qPrintable(word);
        return found.charFormat();
    }
    QTextDocument document;
};

TEST_F(KVRTFReaderFormattingTest, BoldItalicAndUnderlineLandOnTheirRangesAndEndWithTheirGroup) {
    KVRTFReader::read(
        "{\\rtf1 plain {\\b bold} {\\i italic} {\\ul under\\ulnone  none} "
        "\\b\\i both\\b0  italic2\\plain  reset}",
        &document);
    EXPECT_EQ(document.toPlainText(), "plain bold italic under none both italic2 reset");
    const auto flags = [](const QTextCharFormat &f) {
        return std::tuple(f.fontWeight() == QFont::Bold, f.fontItalic(), f.fontUnderline());
    };
    EXPECT_EQ(flags(formatOf("plain")), std::tuple(false, false, false));
    EXPECT_EQ(flags(formatOf("bold")), std::tuple(true, false, false));
    EXPECT_EQ(flags(formatOf("italic")), std::tuple(false, true, false));
    EXPECT_EQ(flags(formatOf("under")), std::tuple(false, false, true));
    EXPECT_EQ(flags(formatOf("none")), std::tuple(false, false, false));
    EXPECT_EQ(flags(formatOf("both")), std::tuple(true, true, false));
    EXPECT_EQ(flags(formatOf("italic2")), std::tuple(false, true, false));
    EXPECT_EQ(flags(formatOf("reset")), std::tuple(false, false, false));
}

TEST_F(KVRTFReaderFormattingTest, ParagraphsBecomeBlocksWithTheirAlignment) {
    KVRTFReader::read("{\\rtf1 \\qc centred\\par\\pard left\\line next\\par}", &document);
    ASSERT_EQ(document.blockCount(), 3);
    EXPECT_EQ(document.firstBlock().blockFormat().alignment(), Qt::AlignHCenter);
    const QTextBlock second = document.firstBlock().next();
    EXPECT_EQ(second.text(), QString("left") + QChar::LineSeparator + "next");
    EXPECT_EQ(second.blockFormat().alignment(), Qt::AlignLeft);
}

TEST(KVRTFReaderHostileInputTest, UnbalancedBracesKeepTheText) {
    expectTexts({{"{\\rtf1 {\\b open", "open"}, {"{\\rtf1 a}}}b", "a"}, {"}}{\\rtf1 c}", "c"}});
}

TEST(KVRTFReaderHostileInputTest, DeepNestingIsCutOffWithoutLosingTheTextAround) {
    const QByteArray deep =
        "{\\rtf1 before " + QByteArray(100000, '{') + "deep" + QByteArray(100000, '}') + " after}";
    EXPECT_EQ(KVRTFReader::toPlainText(deep), "before  after");
    QTextDocument document;
    KVRTFReader::read("{\\rtf1 x" + QByteArray(100000, '{') + "\\b y", &document);
    EXPECT_EQ(document.toPlainText(), "x");
}

TEST(KVRTFReaderHostileInputTest, TruncatedEscapesAndWildParametersEndQuietly) {
    expectTexts({{"{\\rtf1 x\\", "x"},
                 {"{\\rtf1 x\\'", "x"},
                 {"{\\rtf1 x\\'4", "x4"},
                 {"{\\rtf1 x\\u", "x"},
                 {"{\\rtf1 x\\u-", "x-"},
                 {"{\\rtf1 x\\u8364", "x€"},
                 {"{\\rtf1 x\\bin99999", "x"},
                 {"{\\rtf1 x\\bin-3 y", "xy"},
                 {"{\\rtf1 x\\uc-5\\u65 y", "xAy"},
                 {"{\\rtf1 x\\u99999999999999999999?", "x\uFFFF"}});
}

TEST(KVRTFReaderHostileInputTest, RandomBytesNeverCrash) {
    std::mt19937 random(20261121);
    const char alphabet[] = "{}\\'*-0123456789abfuclinprtvx \xe9\n";
    for (int i = 0; i < 3000; ++i) {
        QByteArray rtf = "{\\rtf1 ";
        for (int n = random() % 200; n > 0; --n) rtf += alphabet[random() % (sizeof alphabet - 1)];
        KVRTFReader::toPlainText(rtf);
        if (i % 10 == 0) {
            QTextDocument document;
            KVRTFReader::read(rtf, &document);
        }
    }
}
