// Putting the product in place from the controller: the plain copy, the
// privileged copy through a stand-in and through the real pkexec and polkit,
// registration and the launch with its retries.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>
#include <csignal>

#include "InstallerWinController.h"
#include "KVProcess.h"
#include "KVPropertyList.h"
#include "LogCapture.h"
#include "Polkit.h"
#include "Relaunch.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

class EngineTest : public testing::Test {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("engine");
        source = TestBundle::make(folder + "/media", "Product",
                                  {{"CFBundleSignature", "KvE1"},
                                   {"CFBundleIdentifier", "org.velmora.test.engine"},
                                   {"CFBundleShortVersionString", "2.0"}});
        QDir().mkpath(folder + "/Applications");
        destination = folder + "/Applications/Product.app";
    }
    void TearDown() override {
        TestBundle::stopProcessesAt(destination);
        QProcess::execute("chattr", {"-R", "-i", folder});
        qunsetenv("KV_ELEVATION_COMMAND");
    }

    InstallerWinController &controllerFor(const QString &to, QStringList extra = {}) {
        controller = std::make_unique<InstallerWinController>(
            QStringList{"/x/Installer", "-sourcePath", source, "-destinationPath", to, "-version",
                        "2.0"} +
                extra,
            KV_INSTALLER_APP);
        LogCapture quiet;
        controller->setUp();
        return *controller;
    }
    // The program that stands in for the administrator dialog: a script.
    void elevationStandIn(const QByteArray &body) {
        const QString script = folder + "/elevate";
        TestEnvironment::writeFile(
            script,
            "#!/bin/sh\necho \"$@\" >> '" + QFile::encodeName(folder) + "/elevate.log'\n" + body);
        QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("KV_ELEVATION_COMMAND", QFile::encodeName(script));
    }
    QString run(InstallerWinController &c) {
        LogCapture capture;
        const QString result = c.installMyselfInDestination();
        log = capture.messages();
        return result;
    }
    bool isRunning(const QString &bundle) const {
        for (const KVProcessRef &process : KVProcess::allProcesses())
            if (process->path() == bundle) return true;
        return false;
    }

    QString folder, source, destination;
    std::unique_ptr<InstallerWinController> controller;
    QStringList log;
};

TEST_F(EngineTest, PlainCopyIsRegisteredLaunchedAndReportedAsSuccess) {
    auto &c = controllerFor(destination);
    const QString result = run(c);
    EXPECT_TRUE(result.isNull()) << qPrintable(result);
    EXPECT_TRUE(QFileInfo(destination + "/Contents/MacOS/Product").isExecutable());
    EXPECT_EQ(log, (QStringList{"successfully copied", "launching " + destination, "waited 0.5",
                                "registered app: 0", "waited 0.3", "launched immediately: 1"}));
    EXPECT_EQ(InstallerWinController::installationInProgress(), "Product 2.0");
    EXPECT_TRUE(QFile::exists(qEnvironmentVariable("XDG_DATA_HOME") +
                              "/applications/org.velmora.test.engine.desktop"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return isRunning(destination); }, 5000));
}

TEST_F(EngineTest, ExistingCopyThatCannotBeTrashedFailsWithoutCopying) {
    TestBundle::make(folder + "/Applications", "Product", {{"CFBundleShortVersionString", "1.0"}});
    // The copy and its folder stay writable; the trash refuses it.
    const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash/files";
    QDir().mkpath(trash);
    ASSERT_EQ(QProcess::execute("chattr", {"+i", trash}), 0);
    const auto unlock = qScopeGuard([&] { QProcess::execute("chattr", {"-i", trash}); });
    auto &c = controllerFor(destination);
    EXPECT_EQ(run(c), "Could not delete existing copy.");
    EXPECT_EQ(log, (QStringList{"ERROR -- Could not trash '" + destination + "'",
                                "ERROR -- Could not trash existing " + destination}));
    // Still the old copy: nothing was copied over it.
    EXPECT_EQ(KVPropertyList::fromFile(destination + "/Contents/Info.plist")
                  .toMap()
                  .value("CFBundleShortVersionString"),
              "1.0");
}

TEST_F(EngineTest, LabelWithoutVersionEndsInNull) {
    controller = std::make_unique<InstallerWinController>(
        QStringList{"/x/Installer", "-sourcePath", source, "-destinationPath", destination},
        KV_INSTALLER_APP);
    LogCapture quiet;
    controller->setUp();
    controller->installMyselfInDestination();
    EXPECT_EQ(InstallerWinController::installationInProgress(), "Product (null)");
}

TEST_F(EngineTest, OptionKeyForcesTheAdministratorPath) {
    elevationStandIn("exec \"$@\"\n");
    auto &c = controllerFor(destination);
    c.setOptionKeyDown(true);
    EXPECT_TRUE(run(c).isNull());
    EXPECT_EQ(log.value(0), "enforcing authorization");
    EXPECT_TRUE(log.contains("successfully copied"));
    QFile calls(folder + "/elevate.log");
    ASSERT_TRUE(calls.open(QIODevice::ReadOnly));
    EXPECT_EQ(
        QString::fromUtf8(calls.readAll()),
        QString("%1/Contents/Resources/train %2 %3\n").arg(KV_INSTALLER_APP, source, destination));
}

TEST_F(EngineTest, DismissedDialogEndsWithAnEmptyResult) {
    elevationStandIn("exit 126\n");
    auto &c = controllerFor(destination);
    c.setOptionKeyDown(true);
    EXPECT_EQ(run(c), "");
    EXPECT_FALSE(run(c).isNull());
    EXPECT_EQ(log, (QStringList{"enforcing authorization", "User canceled authorization"}));
    EXPECT_FALSE(QFile::exists(destination));
}

TEST_F(EngineTest, ToolThatFailsEndsInAuthorizedCopyingFailed) {
    elevationStandIn("exec \"$@\"\n");
    TestBundle::make(folder + "/Applications", "Product", {});
    ASSERT_EQ(QProcess::execute("chattr", {"+i", destination}), 0);
    auto &c = controllerFor(destination);
    c.setOptionKeyDown(true);
    EXPECT_EQ(run(c), "Authorized copying failed.");
    EXPECT_TRUE(log.contains("WEXITSTATUS"));
    EXPECT_EQ(log.last(), "ERROR -- Could not copy myself to /Applications with authorization");
}

TEST_F(EngineTest, BlankPathsNeverShowTheDialog) {
    elevationStandIn("exec \"$@\"\n");
    auto &c = controllerFor(destination);
    bool canceled = true;
    EXPECT_FALSE(c.authorizedInstall(source, "   ", QString(), &canceled));
    EXPECT_FALSE(c.authorizedInstall(" \t", destination, QString(), &canceled));
    EXPECT_FALSE(canceled);
    EXPECT_FALSE(QFile::exists(folder + "/elevate.log"));
}

TEST_F(EngineTest, WrapperIsTheToolsThirdArgument) {
    elevationStandIn("exit 126\n");
    const QString wrapper = folder + "/media/Product Folder";
    QDir().mkpath(wrapper);
    auto &c = controllerFor(destination, {"-wrapperPath", wrapper});
    c.setOptionKeyDown(true);
    run(c);
    QFile calls(folder + "/elevate.log");
    ASSERT_TRUE(calls.open(QIODevice::ReadOnly));
    EXPECT_TRUE(calls.readAll().trimmed().endsWith(QFile::encodeName(wrapper)));
}

TEST_F(EngineTest, ProductThatNeverStartsIsRetriedTenTimesAndStillSucceeds) {
    // An executable the system cannot run.
    TestEnvironment::writeFile(source + "/Contents/MacOS/Product", "not a program");
    QFile::setPermissions(source + "/Contents/MacOS/Product",
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    auto &c = controllerFor(destination);
    EXPECT_TRUE(run(c).isNull());
    QStringList retries;
    for (int count = 1; count <= 10; ++count)
        retries << QString("retry opening (count=%1)").arg(count) << "launched: 0";
    ASSERT_GE(log.size(), 20);
    EXPECT_EQ(log.mid(log.size() - 21), QStringList{"launched immediately: 0"} + retries);
}

TEST_F(EngineTest, UnwritableDestinationGoesThroughTheRealPkexec) {
    for (const bool consent : {true, false}) {
        SCOPED_TRACE(consent ? "consent" : "refusal");
        if (!Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
        Polkit polkit(consent);
        ASSERT_TRUE(polkit.ok()) << qPrintable(polkit.error());
        // A folder only root may write, and a source everyone may read.
        const QString rootOnly = folder + (consent ? "/RootOnly" : "/RootOnly2");
        QDir().mkpath(rootOnly);
        for (const QString &path : {folder, folder + "/media", rootOnly})
            chmod(QFile::encodeName(path).constData(), 0755);
        QString output;
        const int status = Relaunch::runCopy(
            folder + "/bin/tests", "AsUserEngine.*", Relaunch::unprivilegedUser(), &output,
            {"KV_ENGINE_SOURCE=" + source, "KV_ENGINE_DESTINATION=" + rootOnly + "/Product.app",
             QString("KV_ENGINE_EXPECT=") + (consent ? "installed" : "refused")});
        EXPECT_EQ(status, 0) << qPrintable(output);
        EXPECT_TRUE(output.contains("[  PASSED  ] 1 test")) << qPrintable(output);
        const QFileInfo installed(rootOnly + "/Product.app/Contents/MacOS/Product");
        EXPECT_EQ(installed.exists(), consent);
        if (consent) {
            EXPECT_EQ(installed.ownerId(), 0u);
        }
    }
}

// Run only as the unprivileged user, through the test above.
class AsUserEngine : public testing::Test {
protected:
    void SetUp() override {
        if (!Relaunch::isCopy() || Relaunch::isRoot()) GTEST_SKIP() << "runs in a user's copy";
        // pkexec refuses a SHELL that is no login shell (the test user has none).
        qunsetenv("SHELL");
    }
};

TEST_F(AsUserEngine, PrivilegedCopyFollowsThePolicy) {
    const QString destination = qEnvironmentVariable("KV_ENGINE_DESTINATION");
    InstallerWinController c(
        {"/x/Installer", "-sourcePath", qEnvironmentVariable("KV_ENGINE_SOURCE"),
         "-destinationPath", destination},
        KV_INSTALLER_APP);
    {
        LogCapture quiet;
        ASSERT_TRUE(c.setUp());
    }
    LogCapture capture;
    const QString result = c.installMyselfInDestination();
    if (qEnvironmentVariable("KV_ENGINE_EXPECT") == "installed") {
        EXPECT_TRUE(result.isNull()) << qPrintable(capture.text());
        EXPECT_TRUE(capture.messages().contains("successfully copied"));
        TestBundle::stopProcessesAt(destination);
    } else {
        EXPECT_EQ(result, "Authorized copying failed.") << qPrintable(capture.text());
        // pkexec's own complaint follows on standard error.
        EXPECT_TRUE(capture.messages().value(0).startsWith("Cannot write to folder " +
                                                           QFileInfo(destination).path() + "\n"));
    }
}

}  // namespace
