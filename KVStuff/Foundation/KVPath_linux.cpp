#include <pwd.h>
#include <unistd.h>

#include <QFile>

#include "KVPath.h"

QString KVPath::homeDirectory() {
    const QByteArray home = qgetenv("HOME");
    if (!home.isEmpty()) return QFile::decodeName(home);
    const passwd *entry = getpwuid(getuid());
    return entry && entry->pw_dir ? QFile::decodeName(entry->pw_dir) : QStringLiteral("/");
}

QString KVPath::homeDirectoryForUser(const QString &user) {
    const passwd *entry = getpwnam(QFile::encodeName(user).constData());
    return entry && entry->pw_dir ? QFile::decodeName(entry->pw_dir) : QString();
}
