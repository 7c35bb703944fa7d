#include "KVLog.h"

#include <QDateTime>

#include "KVLog_p.h"

QString KVLog::linePrefix() {
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")) + ' ' +
           KVLogPlatform::processName() + '[' + QString::number(KVLogPlatform::processId()) + ':' +
           QString::number(KVLogPlatform::threadId()) + "] ";
}

void KVLog::writeLine(const QString &message) {
    QByteArray line = (linePrefix() + message).toUtf8();
    if (!line.endsWith('\n')) line += '\n';
    KVLogPlatform::writeToStandardError(line);
}
