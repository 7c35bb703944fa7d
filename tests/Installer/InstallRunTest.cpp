// The road of one installation, end to end: the real window clicked, real
// running copies quit, the product copied, registered, launched and heard
// from through the "Done" event, and the outcome shown.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <atomic>
#include <csignal>
#include <thread>

#include "InstallerWinController.h"
#include "KVAppleEvent.h"
#include "KVFourCharCode.h"
#include "KVProcess.h"
#include "KVPropertyList.h"
#include "KVUserDefaults.h"
#include "LogCapture.h"
#include "SoundServer.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

// Keeps a copy of a product running: whenever it ends it is started again,
// as often as allowed; as a copy that refuses to quit looks to the installer.
class Respawner {
public:
    Respawner(const QString &executable, int restarts) : m_restarts(restarts) {
        m_pid = TestBundle::start(executable);
        m_thread = std::thread([this, executable] {
            for (;;) {
                waitpid(m_pid.load(), nullptr, 0);
                if (m_stop || m_restarts-- <= 0) return;
                m_pid = TestBundle::start(executable);
            }
        });
    }
    ~Respawner() {
        m_stop = true;
        m_restarts = 0;
        kill(m_pid.load(), SIGKILL);
        m_thread.join();
    }

private:
    std::atomic<pid_t> m_pid{0};
    std::atomic<int> m_restarts;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

class InstallRunTest : public testing::Test {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("road");
        source = makeProduct(folder + "/media", "2.0");
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
        QProcess::execute("chattr", {"-i", qEnvironmentVariable("XDG_DATA_HOME") + "/Trash/files"});
        controller.reset();
    }

    // A product bundle whose program answers the quit event and reports
    // "Done" with its name and version once started.
    static QString makeProduct(const QString &where, const QString &version) {
        const QString bundle = TestBundle::make(where, "Product",
                                                {{"CFBundleSignature", "KvR1"},
                                                 {"CFBundleName", "Product"},
                                                 {"CFBundleIdentifier", "org.velmora.test.road"},
                                                 {"CFBundleShortVersionString", version}},
                                                false);
        QFile::copy(KV_TEST_PRODUCT, bundle + "/Contents/MacOS/Product");
        QFile::setPermissions(bundle + "/Contents/MacOS/Product",
                              QFile::permissions(KV_TEST_PRODUCT));
        return bundle;
    }
    InstallerWinController &setUp(QStringList extra = {}) {
        controller = std::make_unique<InstallerWinController>(
            QStringList{"/x/Installer", "-productName", "Product", "-version", "2.0", "-sourcePath",
                        source, "-productCode", "KvR1", "-destinationPath", destination} +
                extra,
            KV_INSTALLER_APP);
        quits = std::make_unique<QSignalSpy>(controller.get(),
                                             &InstallerWinController::terminationRequested);
        LogCapture quiet;
        controller->installAppleEvents();
        controller->setUp();
        return *controller;
    }
    // Clicks Install and waits until the run has reported.
    QStringList clickInstallAndWait(int timeoutMs = 30000) {
        LogCapture capture;
        QTest::mouseClick(ui().installButton, Qt::LeftButton);
        EXPECT_FALSE(ui().installButton->isEnabled());
        const bool reported = QTest::qWaitFor(
            [&] {
                return capture.text().contains("] quit delay: ") ||
                       (ui().installButton->isEnabled() && !finishedLines(capture).isEmpty());
            },
            timeoutMs);
        EXPECT_TRUE(reported) << qPrintable(capture.text());
        QTest::qWait(50);
        return capture.messages();
    }
    static QStringList finishedLines(const LogCapture &capture) {
        return capture.messages().filter("successfully copied") +
               capture.messages().filter("refused to quit") +
               capture.messages().filter("Could not") + capture.messages().filter("User canceled");
    }
    const Ui::InstallerWindow &ui() const { return controller->outlets(); }
    // Makes the trash refuse everything; TearDown frees it again.
    static void lockTrash() {
        const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash/files";
        QDir().mkpath(trash);
        ASSERT_EQ(QProcess::execute("chattr", {"+i", trash}), 0);
    }

    QString folder, source, applications, destination;
    std::unique_ptr<InstallerWinController> controller;
    std::unique_ptr<QSignalSpy> quits;
};

TEST_F(InstallRunTest, RunningVersionOneIsReplacedByALaunchedVersionTwo) {
    const QString old = makeProduct(applications, "1.0");
    qunsetenv("KV_TEST_DONE_PID");
    const pid_t running = TestBundle::start(old + "/Contents/MacOS/Product");
    qputenv("KV_TEST_DONE_PID", QByteArray::number(getpid()));
    ASSERT_GT(running, 0);

    auto &c = setUp();
    LogCapture capture;
    QTest::mouseClick(ui().installButton, Qt::LeftButton);
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return c.isFinished() && ui().installButton->isEnabled(); }, 30000))
        << qPrintable(capture.text());
    QTest::qWait(300);
    waitpid(running, nullptr, WNOHANG);
    const QStringList log = capture.messages();

    EXPECT_EQ(log.value(0), "Install");
    EXPECT_TRUE(log.contains("Quitting 'KvR1': Product")) << qPrintable(log.join('\n'));
    EXPECT_TRUE(log.contains("successfully copied"));
    EXPECT_TRUE(
        log.contains("received Done event (Product 2.0), current installation: Product 2.0"))
        << qPrintable(log.join('\n'));
    EXPECT_TRUE(log.contains("installation finished"));
    // The old copy went to the trash, the new one is in place and running.
    const QString trashed = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash/files/Product.app";
    EXPECT_EQ(KVPropertyList::fromFile(trashed + "/Contents/Info.plist")
                  .toMap()
                  .value("CFBundleShortVersionString"),
              "1.0");
    // Version 2 ran: it was launched at once and sent its own "Done" above.
    EXPECT_TRUE(log.contains("launched immediately: 1"));

    EXPECT_EQ(ui().introField->text(), "Product was successfully installed.");
    EXPECT_FALSE(ui().checkmarkField->isHidden());
    // The mark stands under the text, where the progress bar was.
    EXPECT_EQ(ui().checkmarkField->x(), ui().introField->x());
    EXPECT_TRUE(ui().cancelButton->isHidden());
    EXPECT_EQ(ui().installButton->text(), "OK");
    QTest::mouseClick(ui().installButton, Qt::LeftButton);
    EXPECT_EQ(quits->count(), 1);
}

TEST_F(InstallRunTest, CopyThatQuitsOnTheSecondAttemptIsRetriedOnce) {
    // Its "Done" for version 1.0 arrives before any run and is only logged.
    const QString old = makeProduct(applications, "1.0");
    Respawner copy(old + "/Contents/MacOS/Product", 1);
    setUp();
    const QStringList log = clickInstallAndWait();
    EXPECT_EQ(log.filter("did not quit; will retry"),
              QStringList{"Product did not quit; will retry"});
    EXPECT_TRUE(log.contains("successfully copied")) << qPrintable(log.join('\n'));
    EXPECT_TRUE(controller->isFinished());
}

TEST_F(InstallRunTest, CopyThatNeverQuitsFailsTheRunNamingItAndInstallWorksAgain) {
    const QString other =
        TestBundle::make(folder + "/elsewhere", "Helper Tool", {{"CFBundleSignature", "KvR9"}});
    auto respawner = std::make_unique<Respawner>(TestBundle::executableOf(other), 1000);
    setUp({"-quitCode", "KvR9"});
    const QStringList log = clickInstallAndWait(60000);
    // Four attempts: each is followed by a look for a copy still running, and
    // one more look ends the run. (A copy restarted during an attempt's walk
    // may be asked twice in it.)
    EXPECT_EQ(log.filter("Still running 'KvR9'").size(), 5) << qPrintable(log.join('\n'));
    EXPECT_GE(log.filter("Quitting 'KvR9'").size(), 4);
    EXPECT_TRUE(log.contains("Helper Tool refused to quit; installation cancelled"));
    EXPECT_FALSE(controller->isFinished());
    EXPECT_EQ(ui().messageField->text(),
              "Helper Tool cannot be running during the installation.\nQuit Helper Tool, then "
              "click \"Install\" again.");
    EXPECT_TRUE(ui().messageField->isHidden());
    EXPECT_TRUE(ui().installButton->isEnabled());
    EXPECT_TRUE(ui().cancelButton->isEnabled());
    EXPECT_EQ(ui().installButton->text(), "Install");

    respawner.reset();
    const QStringList again = clickInstallAndWait();
    EXPECT_TRUE(again.contains("successfully copied")) << qPrintable(again.join('\n'));
    EXPECT_TRUE(controller->isFinished());
}

TEST_F(InstallRunTest, CancelledAdministratorDialogEmptiesTheMessage) {
    const QString script = folder + "/dismiss";
    TestEnvironment::writeFile(script, "#!/bin/sh\nexit 126\n");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::ExeOwner);
    qputenv("KV_ELEVATION_COMMAND", QFile::encodeName(script));
    // Root writes anywhere; an immutable folder is one even root may not.
    ASSERT_EQ(QProcess::execute("chattr", {"+i", applications}), 0);
    setUp();
    controller->outlets().messageField->setText("earlier");
    const QStringList log = clickInstallAndWait();
    EXPECT_TRUE(log.contains("User canceled authorization")) << qPrintable(log.join('\n'));
    EXPECT_EQ(ui().messageField->text(), "");
    EXPECT_FALSE(controller->isFinished());
}

TEST_F(InstallRunTest, FailureMessageAddsTheManualCopyHintWithoutWrapper) {
    // An old copy that the trash refuses: the run fails.
    TestBundle::make(applications, "Product", {});
    lockTrash();
    setUp();
    clickInstallAndWait();
    EXPECT_EQ(ui().messageField->text(),
              "Could not delete existing copy.\nTry installing Product manually by copying it to "
              "the Applications folder.");
}

TEST_F(InstallRunTest, QuitDelayEndsTheProgramAfterTheOutcomeAlsoAfterAFailure) {
    // An old copy that the trash refuses: the run fails.
    TestBundle::make(applications, "Product", {});
    lockTrash();
    setUp({"-completionQuit", "2.5"});
    const QStringList log = clickInstallAndWait();
    QElapsedTimer since;
    since.start();
    EXPECT_TRUE(log.contains("quit delay: 2.5")) << qPrintable(log.join('\n'));
    EXPECT_EQ(quits->count(), 0);
    ASSERT_TRUE(quits->wait(5000));
    EXPECT_GE(since.elapsed(), 2300);
}

TEST_F(InstallRunTest, QuitDelayOfZeroOrTextNeverQuits) {
    for (const char *delay : {"0", "soon"}) {
        setUp({"-completionQuit", delay});
        const QStringList log = clickInstallAndWait();
        EXPECT_TRUE(log.contains("quit delay: 0.0")) << qPrintable(log.join('\n'));
        QTest::qWait(300);
        EXPECT_EQ(quits->count(), 0);
        TestBundle::stopProcessesAt(destination);
    }
}

TEST_F(InstallRunTest, DoneEventWithAnotherTextIsOnlyLogged) {
    setUp();
    LogCapture capture;
    const OSType sins = KVFourCharCode::fromString("SinS"),
                 done = KVFourCharCode::fromString("Done");
    ASSERT_EQ(KVAppleEvent::send(getpid(), sins, done, "Other 1.0", 0), KVAppleEvent::noErr);
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return capture.text().contains("received Done event"); }, 5000));
    QTest::qWait(100);
    EXPECT_EQ(capture.messages().filter("received Done event").value(0).left(40),
              QString("received Done event (Other 1.0), current").left(40));
    EXPECT_FALSE(capture.messages().contains("installation finished"));
    EXPECT_FALSE(controller->isFinished());
}

class InstallRunSoundTest : public InstallRunTest {
protected:
    void SetUp() override {
        QString error;
        server = SoundServer::shared(&error);
        ASSERT_NE(server, nullptr) << qPrintable(error);
        InstallRunTest::SetUp();
    }
    void TearDown() override {
        KVUserDefaults::setArgumentDomain({});
        KVUserDefaults("com.apple.systemsound").removeObjectForKey("com.apple.sound.beep.volume");
        InstallRunTest::TearDown();
    }
    // Runs one installation and returns what the sound card played meanwhile.
    QVector<float> installAndRecord(const QStringList &extra) {
        EXPECT_TRUE(server->startCapture());
        setUp(extra);
        clickInstallAndWait();
        EXPECT_TRUE(controller->isFinished());
        const QVector<float> samples = server->stopCapture(SoundServer::kSinkName, 1500);
        TestBundle::stopProcessesAt(destination);
        return samples;
    }
    SoundServer *server = nullptr;
};

TEST_F(InstallRunSoundTest, CompletionSoundIsHeardOnceAtTheAlertVolume) {
    qunsetenv("KV_TEST_DONE_PID");  // one report, so one success page
    const QVector<float> full = installAndRecord({"-completionSound", "YES"});
    EXPECT_EQ(SoundServer::countSounds(full), 1);
    QDir(applications).removeRecursively();
    QDir().mkpath(applications);
    // 0.61 in the system sound settings is half the alert volume.
    KVUserDefaults("com.apple.systemsound").setObject(0.61, "com.apple.sound.beep.volume");
    const QVector<float> half = installAndRecord({"-completionSound", "YES"});
    EXPECT_EQ(SoundServer::countSounds(half), 1);
    ASSERT_GT(SoundServer::peak(full), 0.05);
    EXPECT_NEAR(SoundServer::peak(half) / SoundServer::peak(full), 0.5, 0.1);
}

TEST_F(InstallRunSoundTest, NoSoundDefaultKeepsTheRunSilent) {
    qunsetenv("KV_TEST_DONE_PID");
    KVUserDefaults::setArgumentDomain({"/x/Installer", "-nosound", "YES"});
    const QVector<float> samples = installAndRecord({"-completionSound", "YES"});
    EXPECT_EQ(SoundServer::countSounds(samples), 0);
    EXPECT_LT(SoundServer::peak(samples), 0.001);
}

}  // namespace
