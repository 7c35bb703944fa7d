#include <QFile>
#include <unistd.h>

#include "KVFileManager.h"
#include "KVPath.h"

bool KVFileManager::isWritableFileAtPath(const QString &path) {
    return !path.isEmpty() && access(QFile::encodeName(path).constData(), W_OK) == 0;
}

QStringList KVFileManager::applicationDirectories(Domain domain) {
    if (domain == Domain::Local) return {QStringLiteral("/opt")};
    return {KVPath::stringByExpandingTildeInPath(QStringLiteral("~/Applications"))};
}
