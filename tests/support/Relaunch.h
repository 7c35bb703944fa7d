// Behaviour seen only from another place or account (a test binary inside a
// bundle, or an unprivileged user, as root may write anywhere) runs in a copy
// of this test binary, started by a test of the normal run.
#pragma once

#include <gtest/gtest.h>

#include <QStringList>

namespace Relaunch {
// The account scripts/test creates for unprivileged runs.
QString unprivilegedUser();
bool isRoot();
// Whether this process is such a copy (suites meant for copies run only there).
bool isCopy();
// Copies the item (cp -a) into the folder, opened to everyone; the copy's path, null on failure.
QString stage(const QString &path, const QString &folder);
// Such a folder holding the shared library, for another user's LD_LIBRARY_PATH.
QString libraryFolder();
// Whether a copy of this binary at executablePath passed the one test the
// filter names, run as the user if named, with extra "NAME=value" variables.
testing::AssertionResult copyPasses(const QString &executablePath, const QString &filter,
                                    const QString &user = {}, const QStringList &environment = {});
}  // namespace Relaunch
