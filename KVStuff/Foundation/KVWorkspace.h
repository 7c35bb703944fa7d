// The desktop's services for files and applications: opening a document or
// an application, the icon a file shows, and the trash.
#pragma once

#include <QIcon>
#include <QImage>
#include <QString>
#include <QUrl>

namespace KVWorkspace {
// A ".app" bundle starts its executable as the desktop would: a session of
// its own, the home folder as its current one, standard streams on
// /dev/null, no other open file of the caller's. It is the caller's child
// while both run (reaped when it ends, never left a zombie). Anything else
// opens with the desktop's default application. False when nothing could be
// started.
bool openFile(const QString &path);
bool openURL(const QUrl &url);
// The bundle's own icon (CFBundleIconFile) when it has one, else the icon
// the desktop shows for the file; no item, no icon.
QIcon iconForFile(const QString &path);
// The image in the file, read by its name's format first: content detection
// loads every image plugin to ask it, which costs more than a start-up's
// whole window. A name that lies about its format still reads, through that
// detection. Only a regular file is read, up to 64 MiB. A null image when
// nothing reads. Safe on any thread.
QImage imageAtPath(const QString &path);
// Moves the item to the desktop's trash, from where the user can put it back:
// the freedesktop.org trash of the item's volume ($XDG_DATA_HOME/Trash on
// the home volume, made with its missing parent folders when needed; else
// the volume's .Trash-$UID). False when the item stays where it was.
bool moveToTrash(const QString &path);
// Tells the desktop that the item changed, so that its windows show it.
void noteFileSystemChanged(const QString &path);
}  // namespace KVWorkspace
