// Reads a read-me document into a QTextDocument with the reader its format
// needs: plain text, HTML, Markdown (GitHub dialect) or RTF. The extension
// decides; without a known one the content does.
#pragma once

#include <QString>

class QTextDocument;

namespace KVDocumentReader {
// Files larger than this are refused.
constexpr qint64 kMaximumFileSize = 32 * 1024 * 1024;

// False, with the document emptied, when the path is no readable regular
// file or is too large. An empty file gives true and an empty document.
bool read(const QString &path, QTextDocument *document);
}  // namespace KVDocumentReader
