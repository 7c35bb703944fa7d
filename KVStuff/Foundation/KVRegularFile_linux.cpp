#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <algorithm>
#include <cerrno>

#include "KVRegularFile.h"

std::optional<QByteArray> KVRegularFile::read(const QString &path, qint64 maximumSize) {
    const QByteArray name = QFile::encodeName(path);
    struct stat info;
    // Looked at before opening, as opening some devices already does
    // something; and again once open, in case the item was swapped meanwhile.
    if (name.isEmpty() || stat(name.constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    const int fd = open(name.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::optional<QByteArray> contents;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= maximumSize) {
        QByteArray bytes(qsizetype(info.st_size), Qt::Uninitialized);
        qsizetype filled = 0;
        // It may have grown since: one byte more than allowed tells.
        for (;;) {
            if (filled == bytes.size()) {
                if (filled > maximumSize) break;
                bytes.resize(
                    std::min<qsizetype>(qMax<qsizetype>(filled * 2, 4096), maximumSize + 1));
                if (filled == bytes.size()) break;
            }
            const ssize_t n = ::read(fd, bytes.data() + filled, size_t(bytes.size() - filled));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                filled = -1;
                break;
            }
            if (n == 0) break;
            filled += n;
        }
        if (filled >= 0 && filled <= maximumSize) {
            bytes.truncate(filled);
            contents = std::move(bytes);
        }
    }
    close(fd);
    return contents;
}
