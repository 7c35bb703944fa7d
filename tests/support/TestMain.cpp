// Test main: a private home, an offscreen GUI application (widgets and
// translators need one), then GoogleTest.
#include <gtest/gtest.h>

#include <QApplication>

#include "KVUserDefaults.h"
#include "TestEnvironment.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    TestEnvironment::setUp();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    // The test runner's own flags are no user defaults.
    KVUserDefaults::setArgumentDomain({});
    const int result = RUN_ALL_TESTS();
    TestEnvironment::tearDown();
    return result;
}
