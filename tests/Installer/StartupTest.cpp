// The installer application started as a real process, the two ways a
// product or a user starts it.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTest>

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
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", stateHome);
        process.setProcessEnvironment(env);
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
    ASSERT_TRUE(runUntil(installer, roadOfOneInstallation(), "] Updated arguments: {"));
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

}  // namespace
