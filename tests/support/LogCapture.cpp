#include "LogCapture.h"

#include <unistd.h>

#include <QRegularExpression>

LogCapture::LogCapture() {
    m_file.open();
    fflush(stderr);
    m_savedFd = dup(STDERR_FILENO);
    dup2(m_file.handle(), STDERR_FILENO);
}

LogCapture::~LogCapture() {
    fflush(stderr);
    dup2(m_savedFd, STDERR_FILENO);
    close(m_savedFd);
}

QString LogCapture::text() const {
    QFile file(m_file.fileName());
    file.open(QIODevice::ReadOnly);
    return QString::fromUtf8(file.readAll());
}

QStringList LogCapture::messages() const {
    // A line starts with "yyyy-MM-dd HH:mm:ss.zzz name[pid:tid] "; lines
    // without that prefix continue the previous message.
    static const QRegularExpression prefix(QStringLiteral(
        "^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} [^\\[]+\\[\\d+:\\d+\\] "));
    QStringList result;
    for (const QString &line : text().split('\n')) {
        const QRegularExpressionMatch match = prefix.match(line);
        if (match.hasMatch())
            result << line.mid(match.capturedLength());
        else if (!result.isEmpty())
            result.last() += '\n' + line;
    }
    if (!result.isEmpty() && result.last().endsWith('\n')) result.last().chop(1);
    return result;
}
