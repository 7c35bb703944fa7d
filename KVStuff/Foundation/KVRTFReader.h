// Reads rich text (RTF) as its text with basic formatting: bold, italic,
// underline, strike-out and paragraph alignment. Fonts, colours, pictures,
// headers, footnotes and field instructions are left out. Any input is
// accepted: malformed or hostile bytes give whatever text can be recovered,
// never a crash.
#pragma once

#include <QByteArray>
#include <QString>

class QTextDocument;

namespace KVRTFReader {
// Replaces the document's content; \par starts a block, \line breaks a line
// inside it (U+2028).
void read(const QByteArray &rtf, QTextDocument *document);
// Paragraphs and line breaks both end in "\n".
QString toPlainText(const QByteArray &rtf);
}  // namespace KVRTFReader
