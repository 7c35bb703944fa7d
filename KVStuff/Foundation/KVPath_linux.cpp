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

QString KVPath::userFolder(UserFolder folder) {
    // In the order of UserFolder: the variable and the fallback under home.
    static constexpr const char *folders[][2] = {{"XDG_CONFIG_HOME", "/.config"},
                                                 {"XDG_DATA_HOME", "/.local/share"},
                                                 {"XDG_STATE_HOME", "/.local/state"}};
    const auto &[variable, fallback] = folders[int(folder)];
    const QString set = QFile::decodeName(qgetenv(variable));
    return set.isEmpty() ? homeDirectory() + QLatin1String(fallback) : set;
}

QString KVPath::homeDirectoryForUser(const QString &user) {
    const passwd *entry = getpwnam(QFile::encodeName(user).constData());
    return entry && entry->pw_dir ? QFile::decodeName(entry->pw_dir) : QString();
}
