// The desktop's services for files and applications: opening a document or
// an application, and the icon a file shows.
#pragma once

#include <QIcon>
#include <QString>
#include <QUrl>

namespace KVWorkspace {
// A ".app" bundle starts its executable detached, in a session of its own;
// anything else opens with the desktop's default application. False when
// nothing could be started.
bool openFile(const QString &path);
bool openURL(const QUrl &url);
// The bundle's own icon (CFBundleIconFile) when it has one, else the icon
// the desktop shows for the file; no item, no icon.
QIcon iconForFile(const QString &path);
}  // namespace KVWorkspace
