// Reads a read-me document into a QTextDocument with the reader its format
// needs: plain text, HTML, Markdown (GitHub dialect) or RTF. The extension
// decides; without a known one the content does.
#pragma once

#include <QString>
#include <QTextDocument>

namespace KVDocumentReader {
// Files larger than this are refused, the document's and each image's.
constexpr qint64 kMaximumFileSize = 32 * 1024 * 1024;
// What one document's images and style sheets may add up to.
constexpr qint64 kMaximumResourceBytes = 64 * 1024 * 1024;

// A document for read-mes: its images and style sheets come only from
// regular files within the limits above (a FIFO would block the window, a
// device never end); anything else shows as a missing image.
class Document : public QTextDocument {
public:
    using QTextDocument::QTextDocument;

protected:
    QVariant loadResource(int type, const QUrl &name) override;

private:
    qint64 m_resourceBytes = 0;
};

// False, with the document emptied, when the path is no readable regular
// file or is too large. An empty file gives true and an empty document.
bool read(const QString &path, QTextDocument *document);
}  // namespace KVDocumentReader
