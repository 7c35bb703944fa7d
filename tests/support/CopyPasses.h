// Runs a test of this program in a copy of it (see Relaunch), which must exit
// with 0 after passing exactly that one test; a failure shows the copy's output.
#pragma once

#include <gtest/gtest.h>

#include "Relaunch.h"

inline testing::AssertionResult copyPasses(const QString &executablePath, const QString &filter,
                                           const QString &user = {},
                                           const QStringList &environment = {}) {
    QString output;
    const int status = Relaunch::runCopy(executablePath, filter, user, &output, environment);
    if (status == 0 && output.contains("[  PASSED  ] 1 test")) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "status " << status << ":\n" << qPrintable(output);
}
