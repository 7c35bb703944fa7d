#include "KVWorkspace.h"

#include <QDesktopServices>
#include <QFileIconProvider>
#include <QFileInfo>

#include "KVBundle.h"

bool KVWorkspace::openURL(const QUrl &url) { return url.isValid() && QDesktopServices::openUrl(url); }

QIcon KVWorkspace::iconForFile(const QString &path) {
    if (path.isEmpty() || !QFileInfo::exists(path)) return QIcon();
    if (const auto bundle = KVBundle::bundleWithPath(path)) {
        const QVariant iconFile = bundle->objectForInfoDictionaryKey(QStringLiteral("CFBundleIconFile"));
        if (iconFile.typeId() == QMetaType::QString && !iconFile.toString().isEmpty()) {
            const QString base = bundle->resourcePath() + QLatin1Char('/') + iconFile.toString();
            for (const QString &candidate :
                 {base + QStringLiteral(".icns"), base, base + QStringLiteral(".png")}) {
                if (QFileInfo(candidate).isFile()) {
                    const QIcon icon(candidate);
                    if (!icon.availableSizes().isEmpty() || !icon.pixmap(64).isNull()) return icon;
                }
            }
        }
    }
    return QFileIconProvider().icon(QFileInfo(path));
}
