#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSaveFile>
#include <QStandardPaths>

#include "KVBundle.h"
#include "KVLaunchServices.h"
#include "KVPath.h"
#include "KVWorkspace.h"

namespace {
QString dataHome() {
    const QString data = QFile::decodeName(qgetenv("XDG_DATA_HOME"));
    return data.isEmpty() ? KVPath::homeDirectory() + "/.local/share" : data;
}
}  // namespace

int KVLaunchServices::registerURL(const QString &path, bool update) {
    const auto bundle = path.endsWith(QLatin1String(".app")) ? KVBundle::bundleWithPath(path)
                                                            : std::nullopt;
    if (!bundle || bundle->executablePath().isEmpty()) return fnfErr;
    const QString identifier = bundle->bundleIdentifier();
    if (identifier.isEmpty() || identifier.contains('/')) return paramErr;

    const QString applications = dataHome() + "/applications";
    const QString entryPath = applications + "/" + identifier + ".desktop";
    // Registered already and no update asked for: nothing to do.
    if (!update && QFile::exists(entryPath)) return noErr;

    QString iconPath;
    const QIcon icon = KVWorkspace::iconForFile(path);
    if (!icon.isNull()) {
        const QString icons = dataHome() + "/icons/hicolor/256x256/apps";
        QDir().mkpath(icons);
        iconPath = icons + "/" + identifier + ".png";
        if (!icon.pixmap(256).save(iconPath, "PNG")) iconPath.clear();
    }

    QDir().mkpath(applications);
    QSaveFile entry(entryPath);
    if (!entry.open(QIODevice::WriteOnly)) return ioErr;
    entry.write(desktopEntryFor(path, iconPath).toUtf8());
    if (!entry.commit()) return ioErr;

    // The menus read a cache of the entries; refresh it where the tool exists.
    const QString refresh = QStandardPaths::findExecutable(QStringLiteral("update-desktop-database"));
    if (!refresh.isEmpty()) QProcess::execute(refresh, {QStringLiteral("-q"), applications});
    return noErr;
}
