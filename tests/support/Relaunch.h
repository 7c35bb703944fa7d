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
// Copies the item (cp -a) into the folder, made and opened to everyone, for
// another user to run; the copy's path, null on failure.
QString stage(const QString &path, const QString &folder);
// Such a folder holding the shared library, for another user's LD_LIBRARY_PATH.
QString libraryFolder();
// Whether a copy of this test binary at executablePath passed the one test
// the filter names, run as the user when one is named, with extra
// "NAME=value" entries in its environment.
testing::AssertionResult copyPasses(const QString &executablePath, const QString &filter,
                                    const QString &user = {}, const QStringList &environment = {});
}  // namespace Relaunch
