#include "KVDocumentReader.h"

#include <QFileInfo>
#include <QStringDecoder>
#include <QTextDocument>
#include <QUrl>

#include "KVPath.h"
#include "KVRTFReader.h"
#include "KVRegularFile.h"

namespace {

enum class Format { PlainText, Html, Markdown, Rtf, Unknown };

Format formatForExtension(const QString &path) {
    const QString extension = KVPath::pathExtension(path).toLower();
    if (extension == u"html" || extension == u"htm" || extension == u"xhtml") return Format::Html;
    if (extension == u"md" || extension == u"markdown") return Format::Markdown;
    if (extension == u"rtf") return Format::Rtf;
    if (extension == u"txt" || extension == u"text") return Format::PlainText;
    return Format::Unknown;
}

// Text without a byte-order mark is UTF-8 when it is valid UTF-8; anything
// else is taken as Windows-1252 (a superset of Latin-1's printable range),
// so an old file shows its accents rather than replacement characters.
QString decodeText(const QByteArray &data) {
    if (const auto encoding = QStringConverter::encodingForData(data)) {
        QStringDecoder decoder(*encoding);
        return decoder.decode(data);
    }
    QStringDecoder utf8(QStringConverter::Utf8, QStringConverter::Flag::Stateless);
    const QString text = utf8.decode(data);
    if (!utf8.hasError()) return text;
    QStringDecoder windows1252("windows-1252");
    if (!windows1252.isValid()) return QString::fromLatin1(data);
    return windows1252.decode(data);
}

QString decodeHtml(const QByteArray &data) {
    // Honours a byte-order mark or <meta charset>, by any name ICU knows.
    QStringDecoder decoder = QStringDecoder::decoderForHtml(data);
    if (!decoder.isValid()) return decodeText(data);
    const QString text = decoder.decode(data);
    return decoder.hasError() ? decodeText(data) : text;
}

QStringView withoutLeadingSpace(QStringView text) {
    qsizetype i = 0;
    while (i < text.size() && (text[i].isSpace() || text[i] == QChar::ByteOrderMark)) ++i;
    return text.sliced(i);
}

// Only the start is decoded: the markers sit there.
Format sniff(const QByteArray &data) {
    const QString head = decodeText(data.left(1024));
    const QStringView start = withoutLeadingSpace(head);
    if (start.startsWith(u"{\\rtf")) return Format::Rtf;
    if (start.startsWith(u"<!doctype html", Qt::CaseInsensitive) ||
        start.startsWith(u"<html", Qt::CaseInsensitive))
        return Format::Html;
    return Format::PlainText;
}

}  // namespace

QVariant KVDocumentReader::Document::loadResource(int type, const QUrl &name) {
    // A data: URL is part of the document, which is bounded already.
    if (name.scheme().compare(QLatin1String("data"), Qt::CaseInsensitive) == 0)
        return QTextDocument::loadResource(type, name);
    const QUrl url = baseUrl().resolved(name);
    const auto bytes =
        url.isLocalFile() ? KVRegularFile::read(url.toLocalFile(), kMaximumFileSize) : std::nullopt;
    QByteArray answer;
    if (bytes && m_resourceBytes + bytes->size() <= kMaximumResourceBytes) {
        m_resourceBytes += bytes->size();
        answer = *bytes;
    }
    // Kept, refusals too, so that no repaint reads the item again.
    addResource(type, url, answer);
    return answer;
}

bool KVDocumentReader::read(const QString &path, QTextDocument *document) {
    if (!document) return false;
    document->clear();
    const auto contents = KVRegularFile::read(path, kMaximumFileSize);
    if (!contents) return false;
    const QByteArray &data = *contents;

    Format format = formatForExtension(path);
    if (format == Format::Unknown) format = sniff(data);
    // Relative links and images resolve next to the document.
    document->setBaseUrl(QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath()));
    switch (format) {
        case Format::Rtf:
            KVRTFReader::read(data, document);
            break;
        case Format::Html:
            document->setHtml(decodeHtml(data));
            break;
        case Format::Markdown:
            document->setMarkdown(decodeText(data), QTextDocument::MarkdownDialectGitHub);
            break;
        default:
            document->setPlainText(decodeText(data));
            break;
    }
    return true;
}
