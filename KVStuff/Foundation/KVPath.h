// Path-string operations with the platform's edge behaviour on "/", "",
// one-character and trailing-slash paths. Paths are plain strings; nothing
// here touches the file system except the home-folder lookup.
#pragma once

#include <QString>
#include <QStringList>

namespace KVPath {
QString lastPathComponent(const QString &path);
QString stringByDeletingLastPathComponent(const QString &path);
QString pathExtension(const QString &path);
QString stringByDeletingPathExtension(const QString &path);
QString stringByAppendingPathComponent(const QString &path, const QString &component);
QString stringByAppendingPathExtension(const QString &path, const QString &extension);
QString stringByExpandingTildeInPath(const QString &path);
QString stringByAbbreviatingWithTildeInPath(const QString &path);
// Removes repeated and trailing slashes ("/" stays "/").
QString stringByRemovingRedundantSlashes(const QString &path);

// $HOME when set, else the user database's entry for the current user.
QString homeDirectory();
// The home folder of the named user, or a null string when unknown.
QString homeDirectoryForUser(const QString &user);

// The user's own folders for settings, data and state (on Linux the XDG base
// folders: $XDG_CONFIG_HOME, $XDG_DATA_HOME, $XDG_STATE_HOME, each with its
// default below the home folder when unset).
enum class UserFolder { Configuration, Data, State };
QString userFolder(UserFolder folder);
}  // namespace KVPath
