#include "KVRTFReader.h"

#include <QHash>
#include <QList>
#include <QStringDecoder>
#include <QTextCursor>
#include <QTextDocument>
#include <algorithm>
#include <cctype>
#include <limits>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

// Real documents nest a few dozen groups at most; deeper groups are skipped
// so that hostile input cannot grow the group stack without bound.
constexpr std::size_t kMaximumDepth = 512;

constexpr int kDefaultCodePage = 1252;

struct CharacterFormat {
    bool bold = false;
    bool italic = false;
    bool underline = false;
    bool strikeOut = false;
    bool operator==(const CharacterFormat &) const = default;
};

enum class Destination { Text, FontTable, Skipped };

// Everything a group scopes: braces save it, a closing brace restores it.
struct GroupState {
    CharacterFormat format;
    Qt::Alignment alignment = Qt::AlignLeft;
    int unicodeSkip = 1;
    int font = -1;
    bool hidden = false;
    Destination destination = Destination::Text;
};

struct Run {
    QString text;
    CharacterFormat format;
};

struct Paragraph {
    QList<Run> runs;
    Qt::Alignment alignment = Qt::AlignLeft;
};

enum class Keyword {
    Paragraph,
    Line,
    Tab,
    Cell,
    Bold,
    Italic,
    Underline,
    UnderlineNone,
    StrikeOut,
    Hidden,
    Plain,
    Alignment,
    Unicode,
    UnicodeSkip,
    Font,
    DefaultFont,
    FontCharset,
    FontCodePage,
    DocumentCodePage,
    CharacterSet,
    Binary,
    FontTable,
    SkippedDestination,
    Character
};

struct KeywordInfo {
    Keyword keyword;
    int value = 0;
};

// Control words by what they do; several spellings may do the same.
constexpr std::pair<Keyword, std::string_view> kControlWords[] = {
    {Keyword::Paragraph, "par sect page row nestrow"},
    {Keyword::Line, "line"},
    {Keyword::Tab, "tab"},
    {Keyword::Cell, "cell nestcell"},
    {Keyword::Bold, "b"},
    {Keyword::Italic, "i"},
    {Keyword::Underline, "ul uld uldb uldash ulth ulw ulwave"},
    {Keyword::UnderlineNone, "ulnone"},
    {Keyword::StrikeOut, "strike striked"},
    {Keyword::Hidden, "v"},
    {Keyword::Plain, "plain"},
    {Keyword::Unicode, "u"},
    {Keyword::UnicodeSkip, "uc"},
    {Keyword::Font, "f"},
    {Keyword::DefaultFont, "deff"},
    {Keyword::FontCharset, "fcharset"},
    {Keyword::FontCodePage, "cpg"},
    {Keyword::DocumentCodePage, "ansicpg"},
    {Keyword::Binary, "bin"},
    {Keyword::FontTable, "fonttbl"},
    // Groups whose content is no text of the document.
    {Keyword::SkippedDestination,
     "colortbl stylesheet info pict object nonshppict header headerl headerr headerf footer "
     "footerl footerr footerf footnote ftnsep ftnsepc aftnsep aftnsepc annotation listtable "
     "listoverridetable revtbl rsidtbl filetbl generator xmlnsd themedata colorschememapping "
     "latentstyles datastore fldinst xe tc private"}};

// Control words that carry their value: an alignment, a code page, a character.
struct ValuedWord {
    std::string_view word;
    Keyword keyword;
    int value;
};
constexpr ValuedWord kValuedWords[] = {
    {"pard", Keyword::Alignment, Qt::AlignLeft},  {"ql", Keyword::Alignment, Qt::AlignLeft},
    {"qr", Keyword::Alignment, Qt::AlignRight},   {"qc", Keyword::Alignment, Qt::AlignHCenter},
    {"qj", Keyword::Alignment, Qt::AlignJustify}, {"ansi", Keyword::CharacterSet, kDefaultCodePage},
    {"mac", Keyword::CharacterSet, 10000},        {"pc", Keyword::CharacterSet, 437},
    {"pca", Keyword::CharacterSet, 850},          {"bullet", Keyword::Character, 0x2022},
    {"endash", Keyword::Character, 0x2013},       {"emdash", Keyword::Character, 0x2014},
    {"lquote", Keyword::Character, 0x2018},       {"rquote", Keyword::Character, 0x2019},
    {"ldblquote", Keyword::Character, 0x201C},    {"rdblquote", Keyword::Character, 0x201D},
    {"enspace", Keyword::Character, 0x2002},      {"emspace", Keyword::Character, 0x2003},
    {"qmspace", Keyword::Character, 0x2005},      {"zwnj", Keyword::Character, 0x200C},
    {"zwj", Keyword::Character, 0x200D}};

const std::unordered_map<std::string_view, KeywordInfo> &keywords() {
    static const std::unordered_map<std::string_view, KeywordInfo> table = [] {
        std::unordered_map<std::string_view, KeywordInfo> t;
        for (auto [keyword, words] : kControlWords) {
            while (!words.empty()) {
                const std::size_t end = std::min(words.find(' '), words.size());
                t.emplace(words.substr(0, end), KeywordInfo{keyword});
                words.remove_prefix(std::min(end + 1, words.size()));
            }
        }
        for (const ValuedWord &valued : kValuedWords)
            t.emplace(valued.word, KeywordInfo{valued.keyword, valued.value});
        return t;
    }();
    return table;
}

// The code page a font's character set stands for; 0 means the document's.
int codePageForCharset(int charset) {
    static constexpr std::pair<int, int> kCodePages[] = {
        {77, 10000}, {128, 932},  {129, 949},  {130, 1361}, {134, 936},  {136, 950},
        {161, 1253}, {162, 1254}, {163, 1258}, {177, 1255}, {178, 1256}, {186, 1257},
        {204, 1251}, {222, 874},  {238, 1250}, {254, 437},  {255, 850}};
    for (const auto &[set, codePage] : kCodePages)
        if (set == charset) return codePage;
    return 0;
}

QStringDecoder decoderForCodePage(int codePage) {
    if (codePage == 65001) return QStringDecoder(QStringDecoder::Utf8);
    for (const char *prefix : {"windows-", "cp"}) {
        QStringDecoder decoder((prefix + QByteArray::number(codePage)).constData());
        if (decoder.isValid()) return decoder;
    }
    return QStringDecoder("windows-1252");
}

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
    if (isDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One pass over the bytes with an explicit group stack, so nesting depth
// costs no native stack.
class Parser {
public:
    explicit Parser(const QByteArray &rtf) : m_data(rtf) {}

    QList<Paragraph> parse() {
        // What precedes the first group is no text of the document.
        if (m_data.startsWith("\xEF\xBB\xBF")) m_pos = 3;
        while (m_pos < m_data.size() && std::isspace(uchar(m_data[m_pos]))) ++m_pos;
        while (m_pos < m_data.size()) {
            const char c = m_data[m_pos++];
            switch (c) {
                case '{':
                    flushBytes();
                    m_fallbackToSkip = 0;
                    openGroup();
                    break;
                case '}':
                    flushBytes();
                    m_fallbackToSkip = 0;
                    if (!closeGroup()) return finish();
                    break;
                case '\\':
                    readControl();
                    break;
                case '\r':
                case '\n':
                    break;
                default:
                    textByte(c);
            }
        }
        return finish();
    }

private:
    GroupState &state() { return m_groups.back(); }

    bool emitsText() const {
        const GroupState &s = m_groups.back();
        return m_ignoredDepth == 0 && s.destination == Destination::Text && !s.hidden;
    }

    void openGroup() {
        if (m_ignoredDepth > 0 || m_groups.size() > kMaximumDepth) {
            ++m_ignoredDepth;
            return;
        }
        m_groups.push_back(m_groups.back());
    }

    // False once the outermost group has closed: what follows is no document.
    bool closeGroup() {
        if (m_ignoredDepth > 0) {
            --m_ignoredDepth;
            return true;
        }
        if (m_groups.size() == 1) return true;
        m_groups.pop_back();
        return m_groups.size() > 1;
    }

    // An \uN replacement's fallback characters are skipped; each text byte,
    // hex byte, control symbol or control word counts as one.
    bool swallowFallback() {
        if (m_fallbackToSkip == 0) return false;
        --m_fallbackToSkip;
        return true;
    }

    void readControl() {
        if (m_pos >= m_data.size()) return;
        if (!isLetter(m_data[m_pos])) {
            controlSymbol(m_data[m_pos++]);
            return;
        }
        const qsizetype start = m_pos;
        while (m_pos < m_data.size() && isLetter(m_data[m_pos])) ++m_pos;
        const std::string_view word(m_data.constData() + start, std::size_t(m_pos - start));
        std::optional<int> parameter;
        bool negative = false;
        if (m_pos + 1 < m_data.size() && m_data[m_pos] == '-' && isDigit(m_data[m_pos + 1])) {
            negative = true;
            ++m_pos;
        }
        if (m_pos < m_data.size() && isDigit(m_data[m_pos])) {
            qint64 value = 0;
            for (; m_pos < m_data.size() && isDigit(m_data[m_pos]); ++m_pos)
                value = qMin<qint64>(value * 10 + (m_data[m_pos] - '0'),
                                     std::numeric_limits<int>::max());
            parameter = int(negative ? -value : value);
        }
        if (m_pos < m_data.size() && m_data[m_pos] == ' ') ++m_pos;
        controlWord(word, parameter);
    }

    void controlSymbol(char symbol) {
        if (symbol == '\'') {
            hexByte();
            return;
        }
        flushBytes();
        if (symbol == '*') {
            state().destination = Destination::Skipped;
            return;
        }
        if (swallowFallback()) return;
        switch (symbol) {
            case '\\':
            case '{':
            case '}':
                appendText(QString(QChar(symbol)));
                break;
            case '~':
                appendText(QString(QChar(0x00A0)));
                break;
            case '-':
                appendText(QString(QChar(0x00AD)));
                break;
            case '_':
                appendText(QString(QChar(0x2011)));
                break;
            case '\t':
                appendText(QStringLiteral("\t"));
                break;
            case '\r':
            case '\n':
                endParagraph();
                break;
            default:
                break;
        }
    }

    void hexByte() {
        int high = -1, low = -1;
        if (m_pos < m_data.size()) high = hexValue(m_data[m_pos]);
        if (high >= 0 && m_pos + 1 < m_data.size()) low = hexValue(m_data[m_pos + 1]);
        // A truncated escape stands for nothing; its digits stay text.
        if (high < 0 || low < 0) return;
        m_pos += 2;
        if (swallowFallback() || !emitsText()) return;
        m_bytes.append(char(high * 16 + low));
    }

    void textByte(char byte) {
        if (swallowFallback() || !emitsText()) return;
        // Control characters other than tab are formatting noise of the writer.
        if (uchar(byte) < 0x20 && byte != '\t') return;
        m_bytes.append(byte);
    }

    void controlWord(std::string_view word, std::optional<int> parameter) {
        flushBytes();
        const auto found = keywords().find(word);
        if (found == keywords().end()) {
            swallowFallback();
            return;
        }
        const Keyword keyword = found->second.keyword;
        // Binary data is skipped even where nothing else counts, or its bytes
        // would be read as braces and words.
        if (keyword == Keyword::Binary) {
            m_pos += qBound(qsizetype(0), qsizetype(parameter.value_or(0)), m_data.size() - m_pos);
            return;
        }
        if (swallowFallback()) return;
        if (m_ignoredDepth > 0 || state().destination == Destination::Skipped) return;
        if (state().destination == Destination::FontTable) {
            fontTableWord(keyword, parameter);
            return;
        }
        const bool on = parameter.value_or(1) != 0;
        GroupState &s = state();
        switch (keyword) {
            case Keyword::Paragraph:
                endParagraph();
                break;
            case Keyword::Line:
                appendText(QString(QChar::LineSeparator));
                break;
            case Keyword::Tab:
            case Keyword::Cell:
                appendText(QStringLiteral("\t"));
                break;
            case Keyword::Bold:
                s.format.bold = on;
                break;
            case Keyword::Italic:
                s.format.italic = on;
                break;
            case Keyword::Underline:
                s.format.underline = on;
                break;
            case Keyword::UnderlineNone:
                s.format.underline = false;
                break;
            case Keyword::StrikeOut:
                s.format.strikeOut = on;
                break;
            case Keyword::Hidden:
                s.hidden = on;
                break;
            case Keyword::Plain:
                s.format = {};
                s.hidden = false;
                s.font = -1;
                break;
            case Keyword::Alignment:
                s.alignment = Qt::Alignment(found->second.value);
                break;
            case Keyword::Unicode:
                unicode(parameter);
                break;
            case Keyword::UnicodeSkip:
                s.unicodeSkip = qMax(0, parameter.value_or(1));
                break;
            case Keyword::Font:
                s.font = parameter.value_or(-1);
                break;
            case Keyword::DefaultFont:
                m_defaultFont = parameter.value_or(-1);
                break;
            case Keyword::DocumentCodePage:
                if (parameter.value_or(0) > 0) m_documentCodePage = *parameter;
                break;
            case Keyword::CharacterSet:
                m_documentCodePage = found->second.value;
                break;
            case Keyword::FontTable:
                s.destination = Destination::FontTable;
                break;
            case Keyword::SkippedDestination:
                s.destination = Destination::Skipped;
                break;
            case Keyword::Character:
                appendText(QString(QChar(found->second.value)));
                break;
            default:
                break;
        }
    }

    // The font table's only use here: which code page each font's bytes are in.
    void fontTableWord(Keyword keyword, std::optional<int> parameter) {
        switch (keyword) {
            case Keyword::Font:
                m_definedFont = parameter.value_or(-1);
                break;
            case Keyword::FontCharset:
                if (const int codePage = codePageForCharset(parameter.value_or(0));
                    codePage > 0 && m_definedFont >= 0)
                    m_fontCodePages.insert(m_definedFont, codePage);
                break;
            case Keyword::FontCodePage:
                if (parameter.value_or(0) > 0 && m_definedFont >= 0)
                    m_fontCodePages.insert(m_definedFont, *parameter);
                break;
            case Keyword::SkippedDestination:
                state().destination = Destination::Skipped;
                break;
            default:
                break;
        }
    }

    void unicode(std::optional<int> parameter) {
        if (!parameter) return;
        // A signed 16-bit value; larger ones are taken modulo 65536 as well.
        const char16_t unit = char16_t(*parameter & 0xFFFF);
        if (unit != 0) appendText(QString(QChar(unit)));
        m_fallbackToSkip = state().unicodeSkip;
    }

    int codePage() const {
        const int font = m_groups.back().font >= 0 ? m_groups.back().font : m_defaultFont;
        return m_fontCodePages.value(font, m_documentCodePage);
    }

    void flushBytes() {
        if (m_bytes.isEmpty()) return;
        const int codePage = this->codePage();
        auto decoder = m_decoders.find(codePage);
        if (decoder == m_decoders.end())
            decoder = m_decoders.emplace(codePage, decoderForCodePage(codePage)).first;
        decoder->second.resetState();
        appendText(decoder->second.decode(m_bytes));
        m_bytes.clear();
    }

    void appendText(const QString &text) {
        if (!emitsText() || text.isEmpty()) return;
        QList<Run> &runs = m_paragraphs.back().runs;
        if (!runs.isEmpty() && runs.back().format == state().format)
            runs.back().text += text;
        else
            runs.append(Run{text, state().format});
    }

    void endParagraph() {
        if (!emitsText()) return;
        m_paragraphs.back().alignment = state().alignment;
        m_paragraphs.append(Paragraph{});
    }

    QList<Paragraph> finish() {
        flushBytes();
        m_paragraphs.back().alignment = state().alignment;
        return std::move(m_paragraphs);
    }

    const QByteArray &m_data;
    qsizetype m_pos = 0;
    std::vector<GroupState> m_groups{GroupState{}};
    int m_ignoredDepth = 0;
    int m_fallbackToSkip = 0;
    QByteArray m_bytes;
    int m_documentCodePage = kDefaultCodePage;
    int m_definedFont = -1;
    int m_defaultFont = -1;
    QHash<int, int> m_fontCodePages;
    std::unordered_map<int, QStringDecoder> m_decoders;
    QList<Paragraph> m_paragraphs{Paragraph{}};
};

QTextCharFormat toCharFormat(const CharacterFormat &format) {
    QTextCharFormat result;
    if (format.bold) result.setFontWeight(QFont::Bold);
    if (format.italic) result.setFontItalic(true);
    if (format.underline) result.setFontUnderline(true);
    if (format.strikeOut) result.setFontStrikeOut(true);
    return result;
}

}  // namespace

void KVRTFReader::read(const QByteArray &rtf, QTextDocument *document) {
    if (!document) return;
    const QList<Paragraph> paragraphs = Parser(rtf).parse();
    // Like setHtml and setPlainText, reading is no step the user can undo.
    const bool undoWasEnabled = document->isUndoRedoEnabled();
    document->setUndoRedoEnabled(false);
    document->clear();
    QTextCursor cursor(document);
    // One edit block: the layout catches up once, not after every run.
    cursor.beginEditBlock();
    for (qsizetype i = 0; i < paragraphs.size(); ++i) {
        QTextBlockFormat blockFormat;
        if (paragraphs[i].alignment != Qt::AlignLeft)
            blockFormat.setAlignment(paragraphs[i].alignment);
        if (i == 0)
            cursor.setBlockFormat(blockFormat);
        else
            cursor.insertBlock(blockFormat, QTextCharFormat());
        for (const Run &run : paragraphs[i].runs)
            cursor.insertText(run.text, toCharFormat(run.format));
    }
    cursor.endEditBlock();
    document->setUndoRedoEnabled(undoWasEnabled);
}

QString KVRTFReader::toPlainText(const QByteArray &rtf) {
    QString text;
    const QList<Paragraph> paragraphs = Parser(rtf).parse();
    for (qsizetype i = 0; i < paragraphs.size(); ++i) {
        if (i > 0) text += QLatin1Char('\n');
        for (const Run &run : paragraphs[i].runs) text += run.text;
    }
    return text.replace(QChar::LineSeparator, QLatin1Char('\n'));
}
