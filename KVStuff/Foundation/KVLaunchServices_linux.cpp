#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QSaveFile>
#include <QStandardPaths>

#include "KVBundle.h"
#include "KVLaunchServices.h"
#include "KVPath.h"
#include "KVWorkspace.h"

int KVLaunchServices::registerURL(const QString &path, bool update) {
    const auto bundle =
        path.endsWith(QLatin1String(".app")) ? KVBundle::bundleWithPath(path) : std::nullopt;
    if (!bundle || bundle->executablePath().isEmpty()) return fnfErr;
    const QString identifier = bundle->bundleIdentifier();
    if (identifier.isEmpty() || identifier.contains('/')) return paramErr;

    const QString data = KVPath::userFolder(KVPath::UserFolder::Data);
    const QString applications = data + "/applications";
    const QString entryPath = applications + "/" + identifier + ".desktop";
    // Registered already and no update asked for: nothing to do.
    if (!update && QFile::exists(entryPath)) return noErr;

    // The desktop shows PNG icons; the bundle's own (often .icns) is
    // converted. Images, not pixmaps: this may run on a worker thread.
    QString iconPath;
    const QString iconFile = bundle->iconFilePath();
    const QImage icon = iconFile.isNull() ? QImage() : KVWorkspace::imageAtPath(iconFile);
    if (!icon.isNull()) {
        const QString icons = data + "/icons/hicolor/256x256/apps";
        QDir().mkpath(icons);
        iconPath = icons + "/" + identifier + ".png";
        const QImage scaled = icon.width() > 256 ? icon.scaled(256, 256, Qt::KeepAspectRatio,
                                                               Qt::SmoothTransformation)
                                                 : icon;
        if (!scaled.save(iconPath, "PNG")) iconPath.clear();
    }

    QDir().mkpath(applications);
    QSaveFile entry(entryPath);
    if (!entry.open(QIODevice::WriteOnly)) return ioErr;
    entry.write(desktopEntryFor(path, iconPath).toUtf8());
    if (!entry.commit()) return ioErr;

    // The menus read a cache of the entries; refresh it where the tool exists.
    const QString refresh =
        QStandardPaths::findExecutable(QStringLiteral("update-desktop-database"));
    if (!refresh.isEmpty()) QProcess::execute(refresh, {QStringLiteral("-q"), applications});
    return noErr;
}
