// A private home, an offscreen GUI application, then GoogleTest.
#include <gtest/gtest.h>

#include <QApplication>

#include "KVUserDefaults.h"
#include "TestEnvironment.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    // A report must not end an instrumented helper halfway through what a test waits for.
    if (qEnvironmentVariableIsSet("TSAN_OPTIONS"))
        qputenv("TSAN_OPTIONS", qgetenv("TSAN_OPTIONS") + " halt_on_error=0 exitcode=0");
    TestEnvironment::setUp();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    KVUserDefaults::setArgumentDomain({});  // the runner's flags are no user defaults
    const int result = RUN_ALL_TESTS();
    TestEnvironment::tearDown();
    return result;
}
