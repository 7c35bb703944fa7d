#include "KVFileManager.h"

#include <QDir>
#include <QFileInfo>

#include "KVFileManager_p.h"
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

bool KVFileManager::copyItemAtPath(const QString &source, const QString &destination) {
    if (source.isEmpty() || destination.isEmpty()) return false;
    // A folder copied into itself would grow while it is being read, without end.
    const QFileInfo sourceInfo(source);
    if (sourceInfo.isDir() && !sourceInfo.isSymLink()) {
        const QString folder = sourceInfo.canonicalFilePath();
        const QString parent = QFileInfo(QFileInfo(destination).absolutePath()).canonicalFilePath();
        if (parent == folder || parent.startsWith(folder + QLatin1Char('/')) ||
            folder == QDir::rootPath())
            return false;
    }
    return KVFileManagerPlatform::copyItem(source, destination);
}
