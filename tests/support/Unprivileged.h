// Places that root can always write are tested as an unprivileged user: the
// test binary runs itself again under `runuser` with a filter that selects
// the suites meant for that user.
#pragma once

#include <QString>

namespace Unprivileged {
// The account scripts/test creates for this ("kvtest").
QString userName();
bool isRoot();
// Runs this test binary as the user with the GoogleTest filter. Returns the
// exit status (-1 when it could not run) and fills output with what it printed.
int runTests(const QString &filter, QString *output);
}  // namespace Unprivileged
