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

// Copies the item as a user expects of a copy: fails when something exists at
// the destination and creates nothing outside it. Folders are copied with
// everything in them; symbolic links stay links with the same target text
// (never followed); files keep their bytes. Every item keeps its permission
// bits, access and modification times and extended attributes (a folder gets
// its own after its contents). FIFOs, devices and sockets fail the copy, as
// does a folder copied into itself. On failure what was written stays.
bool copyItemAtPath(const QString &source, const QString &destination);
// Removes the item, a folder with everything in it; a symbolic link is
// removed, never followed. False when anything could not be removed.
bool removeItemAtPath(const QString &path);
// The names of the items in the folder, hidden ones included, without "." and
// "..", in the order the file system returns them (readdir order, unsorted,
// as the platform's own listing). Empty when the folder cannot be read.
QStringList contentsOfDirectoryAtPath(const QString &path);
}  // namespace KVFileManager
