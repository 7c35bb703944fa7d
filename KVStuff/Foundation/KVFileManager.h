// The few file-manager questions the program asks of the file system.
#pragma once

#include <QString>
#include <QStringList>

namespace KVFileManager {
bool fileExistsAtPath(const QString &path, bool *isDirectory = nullptr);
// Whether the current user may write the item (access(2) with W_OK).
bool isWritableFileAtPath(const QString &path);
// The name a user sees for the item: its last component, with the ".app" of a
// bundle hidden as the desktop shows it.
QString displayNameAtPath(const QString &path);
// Applications folders of a domain, tilde expanded: local "/opt", user
// "~/Applications" on Linux.
enum class Domain { Local, User };
QStringList applicationDirectories(Domain domain);
}  // namespace KVFileManager
