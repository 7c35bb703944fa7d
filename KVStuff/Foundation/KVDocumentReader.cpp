#include "KVDocumentReader.h"

#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>
#include <QTextDocument>
#include <QUrl>

#include "KVPath.h"
#include "KVRTFReader.h"

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

bool readFile(const QString &path, QByteArray *data) {
    // Only regular files: a FIFO would block and a device might never end.
    const QFileInfo info(path);
    if (!info.isFile() || info.size() > KVDocumentReader::kMaximumFileSize) return false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return false;
    // The file may have grown since it was measured.
    *data = file.read(KVDocumentReader::kMaximumFileSize + 1);
    return file.error() == QFileDevice::NoError &&
           data->size() <= KVDocumentReader::kMaximumFileSize;
}

}  // namespace

bool KVDocumentReader::read(const QString &path, QTextDocument *document) {
    if (!document) return false;
    document->clear();
    QByteArray data;
    if (!readFile(path, &data)) return false;

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
