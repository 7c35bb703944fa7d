// The road of one installation, end to end: the real window clicked, real
// running copies quit, the product copied, registered, launched and heard
// from through the "Done" event, and the outcome shown. Then the copy's own
// paths: the administrator one through a stand-in and through the real
// pkexec and polkit, and the launch with its retries.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <csignal>

#include "InstallerWinController.h"
#include "KVAppleEvent.h"
#include "KVFourCharCode.h"
#include "KVUserDefaults.h"
#include "LogCapture.h"
#include "Polkit.h"
#include "Relaunch.h"
#include "SoundServer.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

// A copy of a program that comes back when asked to quit, as often as
// allowed: each copy starts the next before it ends, so that a look for
// running copies right after the quit finds one. That is how a copy that
// refuses to quit looks to the installer. All copies share one process group.
class ComingBack {
public:
    ComingBack(const QString &executable, int returns)
        : m_pid(TestBundle::start(executable, {"--respawn", QString::number(returns)})) {}
    ~ComingBack() {
        kill(-m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }

private:
    pid_t m_pid;
};

using TestBundle::makeRoadProduct;
using TestBundle::productCode;
using TestBundle::versionOf;

class InstallRunTest : public testing::Test {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("road");
        source = makeRoadProduct(folder + "/media", "2.0");
        applications = folder + "/Applications";
        QDir().mkpath(applications);
        destination = applications + "/Product.app";
        qputenv("KV_TEST_DONE_PID", QByteArray::number(getpid()));
    }
    void TearDown() override {
        qunsetenv("KV_TEST_DONE_PID");
        qunsetenv("KV_ELEVATION_COMMAND");
        TestBundle::stopProcessesAt(folder);
        QProcess::execute("chattr", {"-R", "-i", folder});
        QProcess::execute("chattr", {"-i", trash()});
        controller.reset();
    }

    static QString trash() { return qEnvironmentVariable("XDG_DATA_HOME") + "/Trash/files"; }
    InstallerWinController &setUp(const QStringList &extra = {}, const QString &version = "2.0") {
        QStringList argv{"/x/Installer", "-productName", "Product",          "-sourcePath", source,
                         "-productCode", productCode(),  "-destinationPath", destination};
        if (!version.isNull()) argv << "-version" << version;
        controller = std::make_unique<InstallerWinController>(argv + extra, KV_INSTALLER_APP);
        quits = std::make_unique<QSignalSpy>(controller.get(),
                                             &InstallerWinController::terminationRequested);
        LogCapture quiet;
        controller->installAppleEvents();
        controller->setUp();
        return *controller;
    }
    // Clicks Install and waits until the run has reported: the outcome
    // enables the button again, in the same call that logs the quit delay.
    // Lines that follow within settleMs count too.
    QStringList clickInstallAndWait(int timeoutMs = 30000, int settleMs = 50) {
        LogCapture capture;
        QTest::mouseClick(ui().installButton, Qt::LeftButton);
        EXPECT_FALSE(ui().installButton->isEnabled());
        EXPECT_TRUE(QTest::qWaitFor([&] { return ui().installButton->isEnabled(); }, timeoutMs))
            << qPrintable(capture.text());
        QTest::qWait(settleMs);
        return capture.messages();
    }
    const Ui::InstallerWindow &ui() const { return controller->outlets(); }
    // The copy on the worker's behalf, run here; its log lines in log.
    QString run(InstallerWinController &c) {
        LogCapture capture;
        const QString result = c.installMyselfInDestination();
        log = capture.messages();
        return result;
    }
    // The program that stands in for the administrator dialog: a script that
    // notes how it was called.
    void elevationStandIn(const QByteArray &body) {
        const QString script = folder + "/elevate";
        TestEnvironment::writeFile(
            script,
            "#!/bin/sh\necho \"$@\" >> '" + QFile::encodeName(folder) + "/elevate.log'\n" + body);
        QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("KV_ELEVATION_COMMAND", QFile::encodeName(script));
    }
    QString elevations() const {
        QFile calls(folder + "/elevate.log");
        return calls.open(QIODevice::ReadOnly) ? QString::fromUtf8(calls.readAll()) : QString();
    }

    QString folder, source, applications, destination;
    std::unique_ptr<InstallerWinController> controller;
    std::unique_ptr<QSignalSpy> quits;
    QStringList log;
};
using EngineTest = InstallRunTest;

TEST_F(InstallRunTest, RunningVersionOneIsReplacedByALaunchedVersionTwo) {
    const QString old = makeRoadProduct(applications, "1.0");
    qunsetenv("KV_TEST_DONE_PID");
    const pid_t running = TestBundle::start(old + "/Contents/MacOS/Product");
    qputenv("KV_TEST_DONE_PID", QByteArray::number(getpid()));
    ASSERT_GT(running, 0);

    setUp();
    QStringList log = clickInstallAndWait(30000, 300);
    waitpid(running, nullptr, WNOHANG);

    EXPECT_EQ(log.mid(0, 2), (QStringList{"Install", "Quitting '" + productCode() + "': Product"}));
    // Version 2 ran: it sent its own "Done", which ends the run.
    EXPECT_TRUE(
        log.contains("received Done event (Product 2.0), current installation: Product 2.0"))
        << qPrintable(log.join('\n'));
    EXPECT_TRUE(log.contains("installation finished"));
    EXPECT_EQ(InstallerWinController::installationInProgress(), "Product 2.0");
    // The worker's own lines, with the event's lines taken out, in order.
    log.removeIf([](const QString &line) {
        return line.startsWith("received Done") || line == "installation finished";
    });
    EXPECT_EQ(log.mid(log.indexOf("successfully copied"), 6),
              (QStringList{"successfully copied", "launching " + destination, "waited 0.5",
                           "registered app: 0", "waited 0.3", "launched immediately: 1"}));
    EXPECT_EQ(versionOf(trash() + "/Product.app"), "1.0");
    EXPECT_EQ(versionOf(destination), "2.0");
    EXPECT_TRUE(QFile::exists(qEnvironmentVariable("XDG_DATA_HOME") +
                              "/applications/org.velmora.test.road.desktop"));

    EXPECT_EQ(ui().introField->text(), "Product was successfully installed.");
    // The mark stands under the text, where the progress bar was.
    EXPECT_TRUE(ui().checkmarkField->isVisible() && ui().cancelButton->isHidden());
    EXPECT_EQ(ui().checkmarkField->x(), ui().introField->x());
    EXPECT_EQ(ui().installButton->text(), "OK");
    QTest::mouseClick(ui().installButton, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);
}

// A copy that quits on the second request is retried once and the run goes
// on; a delay that is no positive number never ends the program.
TEST_F(InstallRunTest, CopyThatQuitsOnTheSecondAttemptIsRetriedOnce) {
    const QString old = TestBundle::make(
        applications, "Product",
        {{"CFBundleSignature", productCode()}, {"CFBundleShortVersionString", "1.0"}});
    ComingBack copy(TestBundle::executableOf(old), 1);
    setUp({"-completionQuit", "soon"});
    const QStringList log = clickInstallAndWait();
    EXPECT_EQ(log.filter("did not quit; will retry"),
              QStringList{"Product did not quit; will retry"})
        << qPrintable(log.join('\n'));
    EXPECT_TRUE(log.contains("successfully copied")) << qPrintable(log.join('\n'));
    EXPECT_TRUE(controller->isFinished());
    EXPECT_TRUE(log.contains("quit delay: 0.0"));
    QTest::qWait(300);
    EXPECT_EQ(quits->count(), 0);
}

// A copy that never quits fails the run with its name; the window stays on
// the install page and a second click, once it is gone, installs.
TEST_F(InstallRunTest, CopyThatNeverQuitsFailsTheRunNamingItAndInstallWorksAgain) {
    const QString other =
        TestBundle::make(folder + "/elsewhere", "Helper Tool", {{"CFBundleSignature", "KvR9"}});
    auto copies = std::make_unique<ComingBack>(TestBundle::executableOf(other), 1000);
    setUp({"-quitCode", "KvR9"});
    const QStringList log = clickInstallAndWait(60000);
    // Four attempts: each is followed by a look for a copy still running, and
    // one more look ends the run. Each attempt asks every copy it finds: one
    // at least.
    EXPECT_EQ(log.filter("Still running 'KvR9'").size(), 5) << qPrintable(log.join('\n'));
    EXPECT_GE(log.filter("Quitting 'KvR9'").size(), 4) << qPrintable(log.join('\n'));
    EXPECT_TRUE(log.contains("Helper Tool refused to quit; installation cancelled"));
    EXPECT_FALSE(controller->isFinished());
    EXPECT_EQ(ui().messageField->text(),
              "Helper Tool cannot be running during the installation.\nQuit Helper Tool, then "
              "click \"Install\" again.");
    EXPECT_TRUE(ui().messageField->isHidden());
    EXPECT_TRUE(ui().installButton->isEnabled() && ui().cancelButton->isEnabled());
    EXPECT_EQ(ui().installButton->text(), "Install");

    copies.reset();
    const QStringList again = clickInstallAndWait();
    EXPECT_TRUE(again.contains("successfully copied")) << qPrintable(again.join('\n'));
    EXPECT_TRUE(controller->isFinished());
}

// A destination nobody may write takes the administrator path; the user
// dismissing the dialog leaves the window as it was, with an empty message.
// The wrapper is the tool's third argument.
TEST_F(InstallRunTest, DismissedAdministratorDialogEmptiesTheMessage) {
    elevationStandIn("exit 126\n");
    const QString wrapper = folder + "/media/Product Folder";
    QDir().mkpath(wrapper);
    // Root writes anywhere; an immutable folder is one even root may not.
    ASSERT_EQ(QProcess::execute("chattr", {"+i", applications}), 0);
    setUp({"-wrapperPath", wrapper}, QString());
    controller->outlets().messageField->setText("earlier");
    const QStringList log = clickInstallAndWait();
    EXPECT_EQ(
        log.mid(log.indexOf("User canceled authorization") - 1, 2),
        (QStringList{"Cannot write to folder " + applications, "User canceled authorization"}))
        << qPrintable(log.join('\n'));
    EXPECT_TRUE(elevations().endsWith(" " + wrapper + "\n")) << qPrintable(elevations());
    EXPECT_EQ(ui().messageField->text(), "");
    EXPECT_FALSE(controller->isFinished());

    // Only the label of the installation in progress ends it.
    EXPECT_EQ(InstallerWinController::installationInProgress(), "Product (null)");
    LogCapture capture;
    ASSERT_EQ(KVAppleEvent::send(getpid(), KVFourCharCode::fromString("SinS"),
                                 KVFourCharCode::fromString("Done"), "Product 2.0", 0),
              KVAppleEvent::noErr);
    QTest::qWait(300);
    EXPECT_EQ(capture.messages(), QStringList{"received Done event (Product 2.0), current "
                                              "installation: Product (null)"});
    EXPECT_FALSE(controller->isFinished());
}

// An old copy the trash refuses fails the run before anything is copied; the
// message adds the manual-copy hint (no wrapper), and the quit delay ends
// the program after a failure too.
TEST_F(InstallRunTest, CopyThatCannotBeTrashedFailsAndTheQuitDelayStillEndsTheProgram) {
    TestBundle::make(applications, "Product", {{"CFBundleShortVersionString", "1.0"}});
    QDir().mkpath(trash());
    ASSERT_EQ(QProcess::execute("chattr", {"+i", trash()}), 0);
    setUp({"-completionQuit", "2.5"});
    const QStringList log = clickInstallAndWait();
    QElapsedTimer since;
    since.start();
    EXPECT_EQ(log.filter("ERROR"),
              (QStringList{"ERROR -- Could not trash '" + destination + "'",
                           "ERROR -- Could not trash existing " + destination}));
    EXPECT_EQ(versionOf(destination), "1.0");
    EXPECT_EQ(ui().messageField->text(),
              "Could not delete existing copy.\nTry installing Product manually by copying it to "
              "the Applications folder.");
    EXPECT_TRUE(log.contains("quit delay: 2.5")) << qPrintable(log.join('\n'));
    EXPECT_EQ(quits->count(), 0);
    ASSERT_TRUE(quits->wait(5000));
    EXPECT_GE(since.elapsed(), 2300);
}

// Holding Option forces the administrator path: the tool in the installer's
// resources gets source and destination; a failing tool fails the copy.
TEST_F(EngineTest, AdministratorPathThroughAStandIn) {
    const QString tool = QString(KV_INSTALLER_APP) + "/Contents/Resources/train";
    elevationStandIn("exec \"$@\"\n");
    auto &c = setUp();
    c.setOptionKeyDown(true);
    EXPECT_TRUE(run(c).isNull());
    EXPECT_EQ(log.value(0), "enforcing authorization");
    EXPECT_TRUE(log.contains("successfully copied"));
    EXPECT_EQ(elevations(), tool + " " + source + " " + destination + "\n");

    TestBundle::stopProcessesAt(destination);
    ASSERT_EQ(QProcess::execute("chattr", {"+i", destination}), 0);
    EXPECT_EQ(run(c), "Authorized copying failed.");
    EXPECT_TRUE(log.contains("WEXITSTATUS"));
    EXPECT_EQ(log.last(), "ERROR -- Could not copy myself to /Applications with authorization");
}

// The workspace may not know a fresh copy yet: ten retries, and the copy
// counts as installed even when it never starts.
TEST_F(EngineTest, ProductThatNeverStartsIsRetriedTenTimesAndStillSucceeds) {
    TestEnvironment::writeFile(source + "/Contents/MacOS/Product", "not a program");
    auto &c = setUp();
    EXPECT_TRUE(run(c).isNull());
    QStringList retries{"launched immediately: 0"};
    for (int count = 1; count <= 10; ++count)
        retries << QString("retry opening (count=%1)").arg(count) << "launched: 0";
    EXPECT_EQ(log.mid(log.size() - 21), retries);
}

TEST_F(EngineTest, UnwritableDestinationGoesThroughTheRealPkexec) {
    if (!Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
    qunsetenv("KV_TEST_DONE_PID");
    for (const bool consent : {true, false}) {
        SCOPED_TRACE(consent ? "consent" : "refusal");
        Polkit polkit(consent);
        ASSERT_TRUE(polkit.ok()) << qPrintable(polkit.error());
        // A folder only root may write, and a source everyone may read.
        const QString rootOnly = folder + (consent ? "/RootOnly" : "/RootOnly2");
        QDir().mkpath(rootOnly);
        for (const QString &path : {folder, folder + "/media", rootOnly})
            chmod(QFile::encodeName(path).constData(), 0755);
        EXPECT_TRUE(Relaunch::copyPasses(
            folder + "/bin/tests", "AsUserEngine.*", Relaunch::unprivilegedUser(),
            {"KV_ENGINE_SOURCE=" + source, "KV_ENGINE_DESTINATION=" + rootOnly + "/Product.app",
             "KV_ENGINE_INSTALLER=" + Relaunch::stage(KV_INSTALLER_APP, folder + "/bin"),
             QString("KV_ENGINE_EXPECT=") + (consent ? "installed" : "refused")}));
        const QFileInfo installed(rootOnly + "/Product.app/Contents/MacOS/Product");
        EXPECT_EQ(installed.exists(), consent);
        EXPECT_TRUE(!consent || installed.ownerId() == 0u);
    }
}

// Run only as the unprivileged user, through the test above.
TEST(AsUserEngine, PrivilegedCopyFollowsThePolicy) {
    if (!Relaunch::isCopy() || Relaunch::isRoot()) GTEST_SKIP() << "runs in a user's copy";
    // pkexec refuses a SHELL that is no login shell (the test user has none).
    qunsetenv("SHELL");
    const QString destination = qEnvironmentVariable("KV_ENGINE_DESTINATION");
    InstallerWinController c(
        {"/x/Installer", "-sourcePath", qEnvironmentVariable("KV_ENGINE_SOURCE"),
         "-destinationPath", destination},
        qEnvironmentVariable("KV_ENGINE_INSTALLER"));
    LogCapture capture;
    ASSERT_TRUE(c.setUp());
    const qsizetype start = capture.messages().size();
    const QString result = c.installMyselfInDestination();
    const QStringList log = capture.messages().mid(start);
    TestBundle::stopProcessesAt(destination);
    if (qEnvironmentVariable("KV_ENGINE_EXPECT") == "installed") {
        EXPECT_TRUE(result.isNull() && log.contains("successfully copied"))
            << qPrintable(capture.text());
    } else {
        EXPECT_EQ(result, "Authorized copying failed.") << qPrintable(capture.text());
        // pkexec's own complaint follows on standard error.
        EXPECT_TRUE(log.value(0).startsWith("Cannot write to folder " +
                                            QFileInfo(destination).path() + "\n"));
    }
}

using InstallRunSoundTest = InstallRunTest;

// Once per run, at the alert volume of the system settings, and never with
// the "nosound" default.
TEST_F(InstallRunSoundTest, CompletionSoundIsHeardOnceAtTheAlertVolumeUnlessSilenced) {
    QString error;
    SoundServer *server = SoundServer::shared(&error);
    ASSERT_NE(server, nullptr) << qPrintable(error);
    qunsetenv("KV_TEST_DONE_PID");  // one report, so one success page
    const auto restore = qScopeGuard([] {
        KVUserDefaults::setArgumentDomain({});
        KVUserDefaults("com.apple.systemsound").removeObjectForKey("com.apple.sound.beep.volume");
    });
    const auto installAndRecord = [&] {
        EXPECT_TRUE(server->startCapture());
        setUp({"-completionSound", "YES"});
        clickInstallAndWait();
        EXPECT_TRUE(controller->isFinished());
        const QVector<float> samples = server->stopCapture(SoundServer::kSinkName, 1500);
        TestBundle::stopProcessesAt(destination);
        QDir(destination).removeRecursively();
        return samples;
    };
    const QVector<float> full = installAndRecord();
    EXPECT_EQ(SoundServer::countSounds(full), 1);
    // 0.61 in the system sound settings is half the alert volume.
    KVUserDefaults("com.apple.systemsound").setObject(0.61, "com.apple.sound.beep.volume");
    const QVector<float> half = installAndRecord();
    EXPECT_EQ(SoundServer::countSounds(half), 1);
    ASSERT_GT(SoundServer::peak(full), 0.05);
    EXPECT_NEAR(SoundServer::peak(half) / SoundServer::peak(full), 0.5, 0.1);

    KVUserDefaults::setArgumentDomain({"/x/Installer", "-nosound", "YES"});
    const QVector<float> silent = installAndRecord();
    EXPECT_EQ(SoundServer::countSounds(silent), 0);
    EXPECT_LT(SoundServer::peak(silent), 0.001);
}

}  // namespace
