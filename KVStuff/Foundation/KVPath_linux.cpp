#include <pwd.h>
#include <unistd.h>

#include <QFile>
#include <utility>

#include "KVPath.h"

QString KVPath::homeDirectory() {
    const QByteArray home = qgetenv("HOME");
    if (!home.isEmpty()) return QFile::decodeName(home);
    const passwd *entry = getpwuid(getuid());
    return entry && entry->pw_dir ? QFile::decodeName(entry->pw_dir) : QStringLiteral("/");
}

QString KVPath::userFolder(UserFolder folder) {
    const auto [variable, fallback] = [folder]() -> std::pair<const char *, const char *> {
        switch (folder) {
            case UserFolder::Configuration:
                return {"XDG_CONFIG_HOME", "/.config"};
            case UserFolder::Data:
                return {"XDG_DATA_HOME", "/.local/share"};
            case UserFolder::State:
                return {"XDG_STATE_HOME", "/.local/state"};
        }
        return {"XDG_DATA_HOME", "/.local/share"};
    }();
    const QString set = QFile::decodeName(qgetenv(variable));
    return set.isEmpty() ? homeDirectory() + QLatin1String(fallback) : set;
}

QString KVPath::homeDirectoryForUser(const QString &user) {
    const passwd *entry = getpwnam(QFile::encodeName(user).constData());
    return entry && entry->pw_dir ? QFile::decodeName(entry->pw_dir) : QString();
}
