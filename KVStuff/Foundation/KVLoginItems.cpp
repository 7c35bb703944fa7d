#include "KVLoginItems.h"

#include <QFileInfo>
#include <QStandardPaths>

QString KVLoginItems::programOfExecLine(const QString &exec) {
    // The first word of a desktop-entry Exec value: double quotes group,
    // a backslash inside quotes escapes the next character.
    QString word;
    bool inQuotes = false;
    qsizetype i = 0;
    while (i < exec.size() && exec[i].isSpace()) ++i;
    for (; i < exec.size(); ++i) {
        const QChar c = exec[i];
        if (inQuotes && c == '\\' && i + 1 < exec.size()) {
            word += exec[++i];
        } else if (c == '"') {
            inQuotes = !inQuotes;
        } else if (!inQuotes && c.isSpace()) {
            break;
        } else {
            word += c;
        }
    }
    if (word.isEmpty()) return QString();
    if (word.contains('/')) return QFileInfo(word).isFile() ? word : QString();
    return QStandardPaths::findExecutable(word);
}
