// Reading what a product brings (read-mes, their images, icons, property
// lists) only from regular files of bounded size: a FIFO would block its
// reader for ever and a device such as /dev/zero never ends.
#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

namespace KVRegularFile {
// The whole contents; nothing when the path (links followed) names no
// regular file, cannot be read, or holds more than maximumSize bytes. Never
// blocks on the kind of file it finds. Safe on any thread.
std::optional<QByteArray> read(const QString &path, qint64 maximumSize);
}  // namespace KVRegularFile
