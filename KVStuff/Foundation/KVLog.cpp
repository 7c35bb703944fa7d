#include "KVLog.h"

#include <QDateTime>

#include "KVLog_p.h"

QString KVLog::linePrefix() {
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")) + ' ' +
           KVLogPlatform::processName() + '[' + QString::number(KVLogPlatform::processId()) + ':' +
           QString::number(KVLogPlatform::threadId()) + "] ";
}

namespace {
// What one line carries of a message at most: a text from outside, such as
// an event's parameter, must not fill the log in one line.
constexpr qsizetype kMaximumMessageLength = 16 * 1024;

QString cappedMessage(const QString &message) {
    if (message.size() <= kMaximumMessageLength) return message;
    qsizetype kept = kMaximumMessageLength;
    if (message.at(kept - 1).isHighSurrogate()) --kept;
    return message.left(kept) +
           QStringLiteral("... (%1 more characters)").arg(message.size() - kept);
}
}  // namespace

void KVLog::writeLine(const QString &message) {
    QByteArray line = (linePrefix() + cappedMessage(message)).toUtf8();
    if (!line.endsWith('\n')) line += '\n';
    KVLogPlatform::writeToStandardError(line);
}
