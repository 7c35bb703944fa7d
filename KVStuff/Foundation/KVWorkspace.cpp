#include "KVWorkspace.h"

#include <QBuffer>
#include <QDesktopServices>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QImageReader>

#include "KVBundle.h"
#include "KVRegularFile.h"

bool KVWorkspace::openURL(const QUrl &url) {
    return url.isValid() && QDesktopServices::openUrl(url);
}

namespace {
// Larger image files are no icon anyone made.
constexpr qint64 kMaximumImageFileSize = 64 * 1024 * 1024;
}  // namespace

QImage KVWorkspace::imageAtPath(const QString &path) {
    auto bytes = KVRegularFile::read(path, kMaximumImageFileSize);
    if (!bytes) return QImage();
    QBuffer buffer(&*bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer, QFileInfo(path).suffix().toLatin1());
    reader.setAutoDetectImageFormat(false);
    QImage image = reader.read();
    if (!image.isNull()) return image;
    buffer.seek(0);
    return QImageReader(&buffer).read();
}

QIcon KVWorkspace::iconForFile(const QString &path) {
    if (path.isEmpty() || !QFileInfo::exists(path)) return QIcon();
    // Decided without drawing anything: the engine asks from a worker thread,
    // where pixmaps must not be made.
    if (const auto bundle = KVBundle::bundleWithPath(path)) {
        const QString iconFile = bundle->iconFilePath();
        if (!iconFile.isNull() && !imageAtPath(iconFile).isNull()) return QIcon(iconFile);
    }
    return QFileIconProvider().icon(QFileInfo(path));
}
