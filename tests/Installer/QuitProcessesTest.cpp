// Asking the running copies of the product to quit, with real processes.
#include <gtest/gtest.h>

#include <QDateTime>

#include "InstallerWinController.h"
#include "KVProcess.h"
#include "KVPropertyList.h"
#include "LogCapture.h"
#include "Relaunch.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

class QuitProcessesTest : public testing::Test {
protected:
    void SetUp() override { folder = TestEnvironment::makeTempDir("quitcopies"); }
    void TearDown() override {
        for (pid_t pid : children) TestBundle::stop(pid);
    }

    InstallerWinController &controllerWithQuitCodes(const QStringList &codes) {
        const QString product = TestBundle::make(folder, "Source", {{"CFBundleSignature", "Srce"}});
        QStringList argv{"/x/Installer", "-sourcePath",  product, "-destinationPath",
                         "/opt/S.app",   "-productCode", "Srce"};
        if (!codes.isEmpty()) argv << "-quitCode" << codes;
        controller = std::make_unique<InstallerWinController>(argv, "/opt/Installer.app");
        LogCapture quiet;
        controller->setUp();
        return *controller;
    }
    pid_t runCopy(const QString &where, const QString &name, const QString &code,
                  const QStringList &arguments = {}) {
        const QString bundle = TestBundle::make(where, name, {{"CFBundleSignature", code}});
        const pid_t pid = TestBundle::start(TestBundle::executableOf(bundle), arguments);
        EXPECT_GT(pid, 0);
        children << pid;
        return pid;
    }
    static QDateTime timeOf(const QString &line) {
        return QDateTime::fromString(line.left(23), "yyyy-MM-dd HH:mm:ss.zzz");
    }

    QString folder;
    QList<pid_t> children;
    std::unique_ptr<InstallerWinController> controller;
};

TEST_F(QuitProcessesTest, WithoutQuitCodesNothingIsQuitOrReported) {
    runCopy(folder, "Kept", "Kq1a");
    // A completed description always has quit codes (the product's); one
    // that was never completed has none.
    InstallerWinController bare({"/x"}, "/opt/I.app");
    LogCapture capture;
    bare.quitProcesses();
    EXPECT_TRUE(bare.processToQuitStillRunning().isNull());
    EXPECT_TRUE(capture.messages().isEmpty());
    EXPECT_TRUE(KVProcess::processWithPID(children.first())->isStillRunning());
}

TEST_F(QuitProcessesTest, EveryMatchingCopyIsAskedInListOrderATenthOfASecondApart) {
    const pid_t first = runCopy(folder + "/1", "First", "Kq2a");
    const pid_t second = runCopy(folder + "/2", "Second", "Kq2b");
    runCopy(folder + "/3", "Bystander", "Kq2c");
    auto &c = controllerWithQuitCodes({"Kq2a", "ABC", "Kq2b"});
    EXPECT_EQ(c.processToQuitStillRunning(), first < second ? "First" : "Second");

    LogCapture capture;
    c.quitProcesses();
    const QStringList lines = capture.text().split('\n', Qt::SkipEmptyParts);
    QStringList quitting;
    QList<QDateTime> times;
    for (const QString &line : lines) {
        if (!line.contains("] Quitting '")) continue;
        quitting << line.mid(line.indexOf("] Quitting '") + 2);
        times << timeOf(line);
    }
    EXPECT_EQ(quitting, (QStringList{"Quitting 'Kq2a': First", "Quitting 'Kq2b': Second"}));
    ASSERT_EQ(times.size(), 2);
    EXPECT_GE(times[0].msecsTo(times[1]), 100);
    EXPECT_TRUE(c.processToQuitStillRunning().isNull());
    EXPECT_TRUE(KVProcess::processWithPID(children.last())->isStillRunning());
}

TEST_F(QuitProcessesTest, ProcessStillRunningIsNamedAndLogged) {
    runCopy(folder, "Lingering", "Kq3a");
    auto &c = controllerWithQuitCodes({"Kq3a"});
    LogCapture capture;
    EXPECT_EQ(c.processToQuitStillRunning(), "Lingering");
    EXPECT_EQ(capture.messages(), QStringList{"Still running 'Kq3a': Lingering"});
}

TEST_F(QuitProcessesTest, InstallerIsNeverAskedToQuitNorReported) {
    if (Relaunch::isCopy()) GTEST_SKIP() << "runs in the normal test run only";
    // A copy of this test program inside a bundle with signature Kq4s quits
    // the processes with that code: another copy, never itself.
    const QString bundle =
        TestBundle::make(folder, "SelfTest", {{"CFBundleSignature", "Kq4s"}}, false);
    QString output;
    const int status = Relaunch::runCopy(bundle + "/Contents/MacOS/SelfTest",
                                         "InBundleQuitProcesses.*", QString(), &output);
    EXPECT_EQ(status, 0) << qPrintable(output);
    EXPECT_TRUE(output.contains("[  PASSED  ] 1 test")) << qPrintable(output);
}

class InBundleQuitProcesses : public QuitProcessesTest {
protected:
    void SetUp() override {
        if (!Relaunch::isCopy()) GTEST_SKIP() << "runs in a copy inside a bundle";
        QuitProcessesTest::SetUp();
    }
};

TEST_F(InBundleQuitProcesses, OtherCopiesQuitWhileTheInstallerItselfStays) {
    ASSERT_EQ(KVProcess::currentProcess()->signatureString(), "Kq4s");
    runCopy(folder, "Other", "Kq4s");
    auto &c = controllerWithQuitCodes({"Kq4s"});
    LogCapture capture;
    c.quitProcesses();
    EXPECT_TRUE(c.processToQuitStillRunning().isNull());
    const QStringList messages = capture.messages();
    ASSERT_FALSE(messages.isEmpty());
    EXPECT_EQ(messages.first(), "Quitting 'Kq4s': Other");
    EXPECT_FALSE(messages.join('\n').contains("SelfTest"));
}

}  // namespace
