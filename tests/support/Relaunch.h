// Some behaviour can only be seen from another place or another account: a
// test binary inside a bundle, or run as an unprivileged user (root may write
// anywhere). Such suites run in a copy of this test binary, started by a test
// of the normal run.
#pragma once

#include <gtest/gtest.h>

#include <QStringList>

namespace Relaunch {
// The account scripts/test creates for unprivileged runs.
QString unprivilegedUser();
bool isRoot();
// Whether this process is such a copy (suites meant for copies run only there).
bool isCopy();
// Copies the item (cp -a) into the folder, made and opened to everyone: what
// another user runs must not stay in the build tree, which may lie under a
// private folder. The copy's path; null when the copy failed.
QString stage(const QString &path, const QString &folder);
// Such a folder holding a copy of the shared library, for LD_LIBRARY_PATH of
// what another user runs. Null when the copy failed.
QString libraryFolder();
// Copies this test binary to executablePath and runs it with the GoogleTest
// filter, as the user when one is named, with extra "NAME=value" entries in
// its environment. Its exit status (-1 when it could not run); output gets
// all it printed.
int runCopy(const QString &executablePath, const QString &filter, const QString &user,
            QString *output, const QStringList &environment = {});
// Success when such a copy passed the one test the filter names, else a
// failure that carries everything the copy printed.
testing::AssertionResult copyPasses(const QString &executablePath, const QString &filter,
                                    const QString &user = {}, const QStringList &environment = {});
}  // namespace Relaunch
