// Every test process runs with its own HOME and XDG folders under one
// temporary root, so no test reads or writes the real home folder.
#pragma once

#include "QtPrinters.h"

namespace TestEnvironment {
void setUp();  // by the test main
void tearDown();
QString root();
// A new empty folder below the root, named after the hint.
QString makeTempDir(const QString &hint);
// The same outside /tmp (in /var/lib, so root only), for copies the installer
// is to take as installed: it passes over any under /tmp. Null on failure.
QString makeInstalledDir(const QString &hint);
// Writes the bytes to the path, creating its folders.
bool writeFile(const QString &path, const QByteArray &bytes);
}  // namespace TestEnvironment
