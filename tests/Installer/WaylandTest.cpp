// The road of one installation in a Wayland session: the installer shows its
// window on a real compositor, natively or as an X11 client through XWayland;
// Install is pressed over the accessibility bus (nothing can type into a
// headless compositor); the product lands, launches and reports back.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include "Accessibility.h"
#include "TestBundle.h"
#include "TestEnvironment.h"
#include "WaylandSession.h"
#include "XSession.h"

namespace {

using Clients = WaylandSession::Clients;

class WaylandTest : public testing::TestWithParam<Clients> {};

TEST_P(WaylandTest, RoadOfOneInstallation) {
    WaylandSession session;
    const QString error = session.start(GetParam());
    ASSERT_TRUE(error.isEmpty()) << qPrintable(error);
    const QString folder = TestEnvironment::makeTempDir("wayland");
    const QString destination = folder + "/Applications/Product.app";
    QDir().mkpath(folder + "/Applications");
    const auto client = session.clientScope();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    environment.insert("KV_TEST_DONE_PID", "launcher");
    environment.insert("XDG_STATE_HOME", folder + "/state");
    auto installer = std::make_unique<QProcess>();
    installer->setProcessEnvironment(environment);
    installer->start(KV_INSTALLER_APP "/Contents/MacOS/Installer",
                     {"-productName", "Product", "-version", "2.0", "-sourcePath",
                      TestBundle::makeRoadProduct(folder + "/media", "2.0"), "-productCode",
                      TestBundle::productCode(), "-destinationPath", destination});
    const auto log = [&] {
        QFile file(folder + "/state/VelmoraInstaller.log");
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    };

    // The compositor shows the window; a native one belongs to the
    // installer's own connection.
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
    EXPECT_TRUE(QTest::qWaitFor([&] { return log().contains("showing the success page"); }, 60000))
        << qPrintable(log());
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return log().contains("received Done event (Product 2.0)"); }, 20000))
        << qPrintable(log());
    EXPECT_EQ(TestBundle::versionOf(destination), "2.0");
    EXPECT_NE(TestBundle::runningFrom(destination), 0);
    XSession::stop(installer);
    TestBundle::stopProcessesAt(folder);
}

INSTANTIATE_TEST_SUITE_P(Clients, WaylandTest, testing::Values(Clients::Native, Clients::XWayland),
                         [](const testing::TestParamInfo<Clients> &info) {
                             return info.param == Clients::Native ? "Native" : "XWayland";
                         });

}  // namespace
