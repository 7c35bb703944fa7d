// Some behaviour can only be seen from another place or another account: a
// test binary inside a bundle (it then has that bundle's signature), or run
// as an unprivileged user (root may write anywhere). Such suites run in a
// copy of this test binary, started by a test of the normal run.
#pragma once

#include <gtest/gtest.h>

#include <QString>
#include <QStringList>

namespace Relaunch {
// The account scripts/test creates for unprivileged runs ("kvtest").
QString unprivilegedUser();
bool isRoot();
// Whether this process is such a copy (suites meant for copies run only there).
bool isCopy();
// Copies the item (a file, or a folder whole as cp -a does) into the folder,
// made and opened to everyone, and returns the copy's path; null when the
// copy failed. What another user runs must not stay in the build tree, which
// may lie under a private folder (a clone in a 0700 home).
QString stage(const QString &path, const QString &folder);
// A folder that any user reaches, holding a copy of the shared library, for
// LD_LIBRARY_PATH of what another user runs: the build tree's library, which
// the programs were linked against, may be out of that user's reach. Null
// when the copy failed.
QString libraryFolder();
// Copies this test binary to executablePath (folders made, world-readable)
// and runs it with the GoogleTest filter, as the user when one is named.
// Returns the exit status (-1 when it could not run); output gets all it
// printed. environment holds extra "NAME=value" entries for the copy.
int runCopy(const QString &executablePath, const QString &filter, const QString &user,
            QString *output, const QStringList &environment = {});
// Runs such a copy of the one test the filter names: success when it passed,
// else a failure that carries everything the copy printed.
testing::AssertionResult copyPasses(const QString &executablePath, const QString &filter,
                                    const QString &user = {}, const QStringList &environment = {});
}  // namespace Relaunch
