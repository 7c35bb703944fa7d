#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "KVLog_p.h"

QString KVLogPlatform::processName() {
    return QString::fromLocal8Bit(program_invocation_short_name);
}

qint64 KVLogPlatform::processId() { return getpid(); }

qint64 KVLogPlatform::threadId() { return gettid(); }

void KVLogPlatform::writeToStandardError(const QByteArray &bytes) {
    const char *data = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t written = write(STDERR_FILENO, data, size_t(left));
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += written;
        left -= written;
    }
}
