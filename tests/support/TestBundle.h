// Real application bundles for tests: a folder in the macOS layout with an
// Info.plist and a copy of the kvtest_child program as its executable.
#pragma once

#include <sys/types.h>

#include <QString>
#include <QVariantMap>

#include "KVPropertyList.h"

namespace TestBundle {
// folder/name.app with the info dictionary (CFBundleExecutable defaults to
// the name) and, withExecutable, the child program inside.
QString make(const QString &folder, const QString &name, QVariantMap info = {},
             bool withExecutable = true,
             KVPropertyList::Format format = KVPropertyList::Format::Xml);
// The same with kvtest_product, which answers events and reports "Done".
QString makeProduct(const QString &folder, const QString &name, const QVariantMap &info);
QString executableOf(const QString &bundlePath);
// The product code of this test process's own products: a run quits every
// running copy with the code, and other test processes run theirs beside.
QString productCode();
// where/Product.app with the code above and the version.
QString makeRoadProduct(const QString &where, const QString &version);
QString versionOf(const QString &bundlePath);

// Starts the program in its own process group and waits until it says it is
// ready; its pid or -1.
pid_t start(const QString &program, const QStringList &arguments = {});
void stop(pid_t pid);
// Kills every process whose bundle (or executable) lies at or below the
// path: launched copies run in sessions of their own.
void stopProcessesAt(const QString &path);
// The pid of a process running the bundle (or executable); 0 when none does.
pid_t runningFrom(const QString &path);
}  // namespace TestBundle
