// The session's login items, resolved to paths, in list order. On Linux these
// are the XDG autostart entries ($XDG_CONFIG_HOME/autostart/*.desktop, in
// file-name order, "Hidden=true" skipped); an entry resolves to the ".app"
// that encloses its Exec program, else to the program's path. Entries that
// do not resolve are left out.
#pragma once

#include <QStringList>

namespace KVLoginItems {
QStringList resolvedPaths();
// The program an Exec line starts: its first word, quotes honoured, looked up
// in PATH when it has no slash; a null string when it cannot be found.
QString programOfExecLine(const QString &exec);
}  // namespace KVLoginItems
