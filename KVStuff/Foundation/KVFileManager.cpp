#include "KVFileManager.h"

#include <QFileInfo>

#include "KVPath.h"

bool KVFileManager::fileExistsAtPath(const QString &path, bool *isDirectory) {
    const QFileInfo info(path);
    // A dangling link is an item too: it can be replaced or trashed.
    const bool exists = !path.isEmpty() && (info.exists() || info.isSymLink());
    if (isDirectory) *isDirectory = exists && info.isDir();
    return exists;
}

QString KVFileManager::displayNameAtPath(const QString &path) {
    const QString name = KVPath::lastPathComponent(path);
    if (name.endsWith(QLatin1String(".app")) && name.size() > 4 && QFileInfo(path).isDir())
        return name.chopped(4);
    return name;
}
