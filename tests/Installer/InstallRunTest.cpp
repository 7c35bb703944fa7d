// The road of one installation end to end, on the real window and processes.
#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QTest>

#include "InstallerRun.h"

namespace {

using namespace InstallerRun;
using TestBundle::productCode;
using TestBundle::versionOf;

class InstallRunTest : public testing::Test, protected SetUpController, protected Road {
protected:
    void SetUp() override {
        makeRoad("road");
        qputenv("KV_TEST_DONE_PID", QByteArray::number(getpid()));
    }
    void TearDown() override {
        for (const char *name : {"KV_TEST_DONE_PID", "KV_ELEVATION_COMMAND"}) qunsetenv(name);
        tearDownRoad();
        controller.reset();
    }

    InstallerWinController &setUp(const QStringList &extra) {
        const QStringList argv{"/x/I", "-productName", "Product", "-productCode", productCode()};
        setUpController(argv + road() + extra, KV_INSTALLER_APP, true);
        return *controller;
    }
    // The outcome enables the button again, in the call that logs the quit delay.
    QStringList clickInstallAndWait() {
        LogCapture capture;
        QTest::mouseClick(ui().installButton, Qt::LeftButton);
        EXPECT_FALSE(ui().installButton->isEnabled());
        EXPECT_TRUE(QTest::qWaitFor([&] { return ui().installButton->isEnabled(); }, 60000))
            << qPrintable(capture.text());
        QTest::qWait(300);
        return capture.messages();
    }
    QString run() {
        LogCapture capture;
        const QString result = controller->installMyselfInDestination();
        log = capture.messages();
        return result;
    }
    // Stands in for the administrator dialog and notes how it was called.
    void elevationStandIn(const QByteArray &body) {
        const QString script = folder + "/elevate";
        const QByteArray log = QFile::encodeName(folder) + "/elevate.log";
        TestEnvironment::writeFile(script, "#!/bin/sh\necho \"$@\" >> '" + log + "'\n" + body);
        QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("KV_ELEVATION_COMMAND", QFile::encodeName(script));
    }
};
using EngineTest = InstallRunTest;

// The old copy quits on the second request only; "soon" is no delay at all.
TEST_F(InstallRunTest, RunningVersionOneIsRetriedReplacedAndVersionTwoLaunched) {
    const QString code = productCode();
    ComingBack copy(
        TestBundle::make(applications, "Product",
                         {{"CFBundleSignature", code}, {"CFBundleShortVersionString", "1.0"}}),
        1);
    setUp({"-completionQuit", "soon", "-version", "2.0"});
    const QStringList log = clickInstallAndWait();
    EXPECT_EQ(log.filter(QRegularExpression("^(Install|Quitting|Still|Product did)")),
              (QStringList{"Install", "Quitting '" + code + "': Product",
                           "Still running '" + code + "': Product",
                           "Product did not quit; will retry", "Quitting '" + code + "': Product"}))
        << qPrintable(log.join('\n'));
    // Version 2 ran: its own "Done" ends the run.
    EXPECT_TRUE(
        log.contains("received Done event (Product 2.0), current installation: Product 2.0"));
    EXPECT_TRUE(log.contains("installation finished") && log.contains("quit delay: 0.0"));
    EXPECT_EQ(InstallerWinController::installationInProgress(), "Product 2.0");
    EXPECT_EQ(
        log.filter(QRegularExpression("^(successfully|launching|waited|registered|launched)")),
        (QStringList{"successfully copied", "launching " + destination, "waited 0.5",
                     "registered app: 0", "waited 0.3", "launched immediately: 1"}));
    EXPECT_EQ(versionOf(trash() + "/Product.app"), "1.0");
    EXPECT_EQ(ui().introField->text(), "Product was successfully installed.");
    EXPECT_TRUE(ui().checkmarkField->isVisible() && ui().cancelButton->isHidden());
    EXPECT_EQ(quits->count(), 0);
    QTest::mouseClick(ui().installButton, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);
}

TEST_F(InstallRunTest, CopyThatNeverQuitsFailsTheRunAndAnOldCopyTheTrashRefusesStays) {
    auto copies = std::make_unique<ComingBack>(
        TestBundle::make(folder + "/elsewhere", "Helper Tool", {{"CFBundleSignature", "KvR9"}}),
        1000);
    setUp({"-quitCode", "KvR9"});
    const QStringList log = clickInstallAndWait();
    // Four attempts, each followed by a look, and one more look ends the run.
    EXPECT_EQ(log.filter("Still running 'KvR9'").size(), 5) << qPrintable(log.join('\n'));
    EXPECT_GE(log.filter("Quitting 'KvR9'").size(), 4);
    EXPECT_TRUE(log.contains("Helper Tool refused to quit; installation cancelled"));
    EXPECT_EQ(ui().messageField->text(),
              "Helper Tool cannot be running during the installation.\nQuit Helper Tool, then "
              "click \"Install\" again.");
    EXPECT_TRUE(ui().messageField->isHidden() && ui().installButton->isEnabled() &&
                ui().cancelButton->isEnabled());

    // The window runs again; the message adds the manual-copy hint (no wrapper).
    copies.reset();
    TestBundle::make(applications, "Product", {{"CFBundleShortVersionString", "1.0"}});
    QDir().mkpath(trash());
    ASSERT_EQ(QProcess::execute("chattr", {"+i", trash()}), 0);
    EXPECT_EQ(clickInstallAndWait().filter("ERROR"),
              (QStringList{"ERROR -- Could not trash '" + destination + "'",
                           "ERROR -- Could not trash existing " + destination}));
    EXPECT_EQ(versionOf(destination), "1.0");
    EXPECT_EQ(ui().messageField->text(),
              "Could not delete existing copy.\nTry installing Product manually by copying it to "
              "the Applications folder.");
    EXPECT_FALSE(controller->isFinished());
}

// Option forces the administrator path; the workspace may not know a fresh copy
// yet, and one that never starts still counts. A failing tool fails the copy.
TEST_F(EngineTest, AdministratorPathThroughAStandInAndTenLaunchRetries) {
    elevationStandIn("exec \"$@\"\n");
    TestEnvironment::writeFile(source + "/Contents/MacOS/Product", "not a program");
    const QString wrapper = folder + "/media/Product Folder";
    QDir().mkpath(wrapper);
    auto &c = setUp({"-wrapperPath", wrapper});
    const QString target = c.arguments().value("destinationPath").toString();
    c.setOptionKeyDown(true);
    EXPECT_TRUE(run().isNull());
    EXPECT_EQ(log.value(0), "enforcing authorization");
    EXPECT_EQ(readText(folder + "/elevate.log"),
              QString(KV_INSTALLER_APP "/Contents/Resources/train ") + source + " " + target + " " +
                  wrapper + "\n");
    QStringList retries{"launched immediately: 0"};
    for (int count = 1; count <= 10; ++count)
        retries << QString("retry opening (count=%1)").arg(count) << "launched: 0";
    EXPECT_EQ(log.mid(log.size() - 21), retries);

    ASSERT_EQ(QProcess::execute("chattr", {"+i", target}), 0);
    EXPECT_EQ(run(), "Authorized copying failed.");
    EXPECT_EQ(log.last(), "ERROR -- Could not copy myself to /Applications with authorization");

    // A dismissed dialog is no failure to report; only the run's label ends it.
    elevationStandIn("exit 126\n");
    EXPECT_EQ(run(), "");
    EXPECT_EQ(log.last(), "User canceled authorization");
    LogCapture capture;
    c.installationDone("Product 2.0");
    QTest::qWait(300);
    EXPECT_EQ(capture.messages(), QStringList{"received Done event (Product 2.0), current "
                                              "installation: Product (null)"});
    EXPECT_FALSE(c.isFinished());
}

}  // namespace
