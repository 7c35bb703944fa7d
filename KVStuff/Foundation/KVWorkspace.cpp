#include "KVWorkspace.h"

#include <QDesktopServices>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QImageReader>

#include "KVBundle.h"

bool KVWorkspace::openURL(const QUrl &url) {
    return url.isValid() && QDesktopServices::openUrl(url);
}

QImage KVWorkspace::imageAtPath(const QString &path) {
    QImageReader reader(path, QFileInfo(path).suffix().toLatin1());
    reader.setAutoDetectImageFormat(false);
    QImage image = reader.read();
    return image.isNull() ? QImageReader(path).read() : image;
}

QIcon KVWorkspace::iconForFile(const QString &path) {
    if (path.isEmpty() || !QFileInfo::exists(path)) return QIcon();
    // Decided without drawing anything: the engine asks from a worker thread,
    // where pixmaps must not be made.
    if (const auto bundle = KVBundle::bundleWithPath(path)) {
        const QString iconFile = bundle->iconFilePath();
        if (!iconFile.isNull() && QImageReader(iconFile).canRead()) return QIcon(iconFile);
    }
    return QFileIconProvider().icon(QFileInfo(path));
}
