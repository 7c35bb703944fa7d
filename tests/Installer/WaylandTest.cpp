// Install is pressed over the accessibility bus: nothing can type into a headless compositor.
#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QTest>

#include "Accessibility.h"
#include "InstallerRun.h"
#include "WaylandSession.h"

namespace {

using Clients = WaylandSession::Clients;

class WaylandTest : public testing::TestWithParam<Clients>, protected InstallerRun::Road {
protected:
    void SetUp() override { makeRoad("wayland"); }
    void TearDown() override { tearDownRoad(); }
};

TEST_P(WaylandTest, RoadOfOneInstallation) {
    WaylandSession session;
    const QString error = session.start(GetParam());
    ASSERT_TRUE(error.isEmpty()) << qPrintable(error);
    // Another installer runs: the launched product must find the one that launched it.
    TestBundle::start(TestBundle::executableOf(
        TestBundle::make(folder + "/older", "Installer", {{"CFBundleSignature", "VlIn"}})));
    const auto client = session.clientScope();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    environment.insert("KV_TEST_DONE_PID", "launcher");
    environment.insert("XDG_STATE_HOME", folder + "/state");
    auto installer = std::make_unique<QProcess>();
    installer->setProcessEnvironment(environment);
    installer->start(KV_INSTALLER_APP "/Contents/MacOS/Installer",
                     {"-productName", "Product", "-version", "2.0", "-sourcePath", source,
                      "-productCode", TestBundle::productCode(), "-destinationPath", destination});
    const auto log = [&] { return InstallerRun::logText(folder + "/state"); };
    // A native window belongs to the installer's own connection.
    const QRegularExpression shown(
        (GetParam() == Clients::Native
             ? QString("role xdg_toplevel, PID %1, .*").arg(installer->processId())
             : QString()) +
        "top-level window 'Install Product'");
    EXPECT_TRUE(QTest::qWaitFor([&] { return session.sceneGraph().contains(shown); }, 30000))
        << qPrintable(session.sceneGraph() + log());
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return Accessibility::pressButton(installer->processId(), "Install"); }, 30000))
        << qPrintable(log());
    // Only the launched version 2 sends this.
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return log().contains("received Done event (Product 2.0)"); }, 60000))
        << qPrintable(log());
    XSession::stop(installer);
}

INSTANTIATE_TEST_SUITE_P(Clients, WaylandTest, testing::Values(Clients::Native, Clients::XWayland),
                         [](const testing::TestParamInfo<Clients> &info) {
                             return info.param == Clients::Native ? "Native" : "XWayland";
                         });

}  // namespace
