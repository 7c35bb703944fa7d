// The installer application started as a real process, the two ways a
// product or a user starts it.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTest>
#include <csignal>

#include "KVAppleEventManager.h"
#include "KVFourCharCode.h"
#include "KVWorkspace.h"
#include "Relaunch.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

class StartupTest : public testing::Test {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("startup");
        stateHome = folder + "/state";
        product = TestBundle::make(
            folder + "/Volumes/Product", "Product",
            {{"CFBundleSignature", "Kv6a"}, {"CFBundleShortVersionString", "2.1"}});
        QDir().mkpath(folder + "/Applications");
    }

    // Starts the installer with the arguments, waits until its output or
    // log file shows the marker, then ends it. Whether the marker came while
    // the installer still ran, as it waits for the user after its set-up.
    bool runUntil(const QString &executable, const QStringList &arguments, const QString &marker,
                  int waitMs = 20000) {
        QProcess process;
        process.setProcessEnvironment(environment());
        process.setProcessChannelMode(QProcess::MergedChannels);
        // Only what this run appends to the log counts.
        const qsizetype logStart = logFile().size();
        output.clear();
        process.start(executable, arguments);
        const bool seen = QTest::qWaitFor(
            [&] {
                output += QString::fromUtf8(process.readAll());
                const QString text = output + logFile().mid(logStart);
                const qsizetype at = text.indexOf(marker);
                // A description is complete with its closing brace.
                return at >= 0 && (!marker.endsWith('{') || text.indexOf("\n}\n", at) > 0);
            },
            waitMs);
        const bool running = process.state() == QProcess::Running;
        process.terminate();
        process.waitForFinished(5000);
        output += QString::fromUtf8(process.readAll());
        return seen && running;
    }
    // The test's own, with the log file in the test's folder.
    QProcessEnvironment environment() const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", stateHome);
        return env;
    }
    QString logFile() const {
        QFile file(stateHome + "/VelmoraInstaller.log");
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    QStringList roadOfOneInstallation() const {
        return {
            "-productName",     "Product", "-version",         "2.1",
            "-sourcePath",      product,   "-productCode",     "Kv6a",
            "-completionSound", "YES",     "-destinationPath", folder + "/Applications/Product.app",
            "-quitCode",        "Kv6q"};
    }

    const QString installer = QStringLiteral(KV_INSTALLER_APP "/Contents/MacOS/Installer");
    QString folder, stateHome, product, output;
};

// The log file is where support finds what happened: every line of the set-up
// but the first lands there, run after run; one that cannot be opened must
// not keep the installer from coming up.
TEST_F(StartupTest, LaunchedWithArgumentsAppendsTheDescriptionToTheLogFile) {
    ASSERT_TRUE(runUntil(installer, roadOfOneInstallation(), "] Updated arguments: {"))
        << qPrintable(output);
    // The event handler is installed before the log decision: its line is
    // the only one that never reaches the file.
    EXPECT_TRUE(output.endsWith("] AppleEvents installed\n") && output.count('\n') == 1)
        << qPrintable(output);
    const QString log = logFile();
    EXPECT_TRUE(log.contains("] arguments: (\n    \"" + installer + "\",\n    \"-productName\",\n"))
        << qPrintable(log);
    EXPECT_TRUE(log.contains("    quitCode =     (\n        Kv6q,\n        Kv6a\n    );\n"))
        << qPrintable(log);
    EXPECT_TRUE(log.contains("    destinationPath = \"" + folder + "/Applications/Product.app\";"))
        << qPrintable(log);
    // Three words are the fewest that count as a description.
    ASSERT_TRUE(runUntil(installer, {"-sourcePath", product}, "] Updated arguments: {"));
    EXPECT_EQ(logFile().count("] Updated arguments: {"), 2);

    // A file where the log folder should be: neither stream can be reopened,
    // there is nothing to wait for, and the installer still comes up.
    QDir(stateHome).removeRecursively();
    TestEnvironment::writeFile(stateHome, "in the way");
    EXPECT_FALSE(runUntil(installer, roadOfOneInstallation(), "arguments", 1500));
    EXPECT_TRUE(output.endsWith("] AppleEvents installed\n") && output.count('\n') == 1)
        << qPrintable(output);
}

// Started without a description (by the user, from inside the product), the
// installer logs to standard error and finds the product around it; outside
// any product it shows its set-up error and waits for OK.
TEST_F(StartupTest, DirectInvocationFindsTheEnclosingProductOrWaitsWithAnError) {
    const QString inside = product + "/Contents/Resources/Installer.app";
    ASSERT_TRUE(QProcess::execute("cp", {"-a", KV_INSTALLER_APP, inside}) == 0);
    ASSERT_TRUE(runUntil(inside + "/Contents/MacOS/Installer", {}, "] Updated arguments: {"))
        << qPrintable(output);
    EXPECT_TRUE(output.contains("] direct invocation\n"));
    EXPECT_TRUE(output.contains("] shortened path = " + product + "/Contents\n"));
    EXPECT_EQ(output.count("] shortened path = "), 2) << qPrintable(output);
    EXPECT_TRUE(output.contains("    sourcePath = \"" + product + "\";")) << qPrintable(output);
    EXPECT_TRUE(output.contains("    productName = Product;"));
    EXPECT_TRUE(logFile().isNull());

    // The build tree's installer is inside no product.
    EXPECT_TRUE(runUntil(installer, {}, "] missing source path\n")) << qPrintable(output);
}

// Without a display nobody could click: the installer says so on standard
// error and in the log, and ends at once, non-zero.
TEST_F(StartupTest, WithoutADisplayTheInstallerSaysSoAndEnds) {
    QProcess process;
    QProcessEnvironment env = environment();
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) env.remove(name);
    process.setProcessEnvironment(env);
    process.start(installer, roadOfOneInstallation());
    const bool ended = process.waitForFinished(20000);
    if (!ended) process.kill();
    process.waitForFinished();
    EXPECT_TRUE(ended && process.exitStatus() == QProcess::NormalExit && process.exitCode() != 0);
    const QString line =
        "] No display to show the installer on: neither DISPLAY nor WAYLAND_DISPLAY is set\n";
    EXPECT_TRUE(QString::fromUtf8(process.readAllStandardError()).endsWith(line));
    EXPECT_TRUE(logFile().endsWith(line)) << qPrintable(logFile());
}

// Its line says the "Done" handler is in place: while the session bus does
// not answer (stopped here), the handler cannot be, and the line waits too.
TEST_F(StartupTest, TheEventsLineWaitsForTheHandler) {
    QProcess bus;
    bus.start("dbus-daemon", {"--session", "--nofork", "--print-address"});
    ASSERT_TRUE(bus.waitForReadyRead(10000));
    const pid_t busPid = pid_t(bus.processId());
    QProcessEnvironment env = environment();
    env.insert("DBUS_SESSION_BUS_ADDRESS", QString::fromUtf8(bus.readLine()).trimmed());
    kill(busPid, SIGSTOP);
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(installer, roadOfOneInstallation());
    QString errors;
    const auto lineShown = [&] {
        errors += QString::fromUtf8(process.readAllStandardError());
        return errors.contains("] AppleEvents installed\n");
    };
    EXPECT_FALSE(QTest::qWaitFor(lineShown, 1000));
    kill(busPid, SIGCONT);
    EXPECT_TRUE(QTest::qWaitFor(lineShown, 20000)) << qPrintable(errors);
    process.terminate();
    process.waitForFinished(5000);
    bus.kill();
    bus.waitForFinished(5000);
}

// The product tells the installer that started it, not merely the first one
// running: here an older installer runs too, and would come first.
TEST_F(StartupTest, TheProductFindsTheInstallerThatStartedIt) {
    if (Relaunch::isCopy()) GTEST_SKIP() << "runs in the normal test run only";
    const QString older =
        TestBundle::make(folder + "/older", "Installer", {{"CFBundleSignature", "VlIn"}});
    const pid_t decoy = TestBundle::start(TestBundle::executableOf(older));
    ASSERT_GT(decoy, 0);
    const QString bundle =
        TestBundle::make(folder, "Installer", {{"CFBundleSignature", "VlIn"}}, false);
    EXPECT_TRUE(
        Relaunch::copyPasses(bundle + "/Contents/MacOS/Installer", "AsInstaller.*", {},
                             {"KV_TEST_DONE_PID=launcher", "KV_TEST_PRODUCT_DIR=" + folder}));
    TestBundle::stop(decoy);
}

// Run only inside an installer's bundle, through the test above.
TEST(AsInstaller, StartsAProductThatReportsDoneToIt) {
    if (!Relaunch::isCopy()) GTEST_SKIP() << "runs in a copy inside an installer's bundle";
    const QString product = TestBundle::makeProduct(
        qEnvironmentVariable("KV_TEST_PRODUCT_DIR"), "Reporter",
        {{"CFBundleName", "Reporter"}, {"CFBundleShortVersionString", "3.0"}});
    QString received;
    KVAppleEventManager::sharedManager().setEventHandler(
        KVFourCharCode::fromString("SinS"), KVFourCharCode::fromString("Done"),
        [&](const QString &text) { received = text; });
    ASSERT_TRUE(KVWorkspace::openFile(product));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !received.isNull(); }, 10000));
    EXPECT_EQ(received, "Reporter 3.0");
    TestBundle::stopProcessesAt(product);
}

}  // namespace
