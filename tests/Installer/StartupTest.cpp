// The installer application started as a real process, the two ways a
// product or a user starts it.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>

#include "KVPropertyList.h"
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

    // Starts the installer executable with the arguments and waits until its
    // log (the log file or standard error) shows the marker, then closes it.
    // Returns whether the marker came while the installer was still running,
    // as it keeps running for the user after its set-up.
    bool runUntil(const QString &executable, const QStringList &arguments, const QString &marker,
                  int waitMilliseconds = 20000) {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", stateHome);
        env.insert("QT_QPA_PLATFORM", "offscreen");
        process.setProcessEnvironment(env);
        process.start(executable, arguments);
        if (!process.waitForStarted(10000)) return false;
        output.clear();
        // Only what this run appends to the log counts.
        const qsizetype logStart = logFile().size();
        bool seen = false;
        for (int i = 0; i < waitMilliseconds / 20 && !seen && process.state() == QProcess::Running;
             ++i) {
            process.waitForReadyRead(20);
            output +=
                QString::fromUtf8(process.readAllStandardError() + process.readAllStandardOutput());
            const QString text = output + logFile().mid(logStart);
            const qsizetype at = text.indexOf(marker);
            // A description is complete with its closing brace.
            seen = at >= 0 && (!marker.endsWith('{') || text.indexOf("\n}\n", at) > 0);
        }
        const bool running = process.state() == QProcess::Running;
        process.terminate();
        process.waitForFinished(5000);
        output +=
            QString::fromUtf8(process.readAllStandardError() + process.readAllStandardOutput());
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
    EXPECT_TRUE(log.contains("] Updated arguments: {\n")) << qPrintable(log);
    EXPECT_TRUE(log.contains("    quitCode =     (\n        Kv6q,\n        Kv6a\n    );\n"))
        << qPrintable(log);
    EXPECT_TRUE(log.contains("    destinationPath = \"" + folder + "/Applications/Product.app\";"))
        << qPrintable(log);

    // The log is appended to, never truncated.
    ASSERT_TRUE(runUntil(installer, roadOfOneInstallation(), "] Updated arguments: {"));
    EXPECT_EQ(logFile().count("] Updated arguments: {"), 2);
}

TEST_F(StartupTest, InstallerInsideTheProductDescribesTheProductWithoutLogFile) {
    const QString inside = product + "/Contents/Resources/Installer.app";
    ASSERT_TRUE(QProcess::execute("cp", {"-a", KV_INSTALLER_APP, inside}) == 0);
    ASSERT_TRUE(runUntil(inside + "/Contents/MacOS/Installer", {}, "] Updated arguments: {"))
        << qPrintable(output);
    EXPECT_TRUE(output.contains("] direct invocation\n"));
    EXPECT_TRUE(output.contains("] shortened path = " + product + "/Contents\n"));
    EXPECT_TRUE(output.contains("] shortened path = " + product + "\n"));
    EXPECT_TRUE(output.contains("    sourcePath = \"" + product + "\";")) << qPrintable(output);
    EXPECT_TRUE(output.contains("    productName = Product;"));
    EXPECT_TRUE(logFile().isNull());
}

TEST_F(StartupTest, LanguageFlagOrFewWordsMeanDirectInvocation) {
    EXPECT_TRUE(runUntil(installer, {"-AppleLanguages", "(de)", "-sourcePath", product},
                         "] Updated arguments: {"));
    EXPECT_TRUE(output.contains("] direct invocation\n")) << qPrintable(output);
    EXPECT_TRUE(logFile().isNull());
}

TEST_F(StartupTest, SetupErrorIsLoggedAndTheWindowWaitsForOK) {
    // The build tree's installer is inside no product.
    EXPECT_TRUE(runUntil(installer, {}, "] missing source path\n")) << qPrintable(output);
}

TEST_F(StartupTest, UnopenableLogFileFallsBackToNothing) {
    // A file where the log folder should be: neither stream can be reopened.
    TestEnvironment::writeFile(stateHome, "in the way");
    // Nothing to wait for: the log goes nowhere. The installer still comes up.
    EXPECT_FALSE(runUntil(installer, roadOfOneInstallation(), "arguments", 1500));
    // The event handler is installed before the log decision: its line is
    // the only one that never reaches the file.
    EXPECT_TRUE(output.endsWith("] AppleEvents installed\n") && output.count('\n') == 1)
        << qPrintable(output);
}

TEST_F(StartupTest, InstallerItselfIsNeverTakenForARunningCopy) {
    // A copy of the installer with a signature of its own, given as the
    // product code: the only process with it is that installer, so the
    // Applications folder is chosen.
    const QString copy = folder + "/Own/Installer.app";
    QDir().mkpath(folder + "/Own");
    ASSERT_EQ(QProcess::execute("cp", {"-a", KV_INSTALLER_APP, copy}), 0);
    QVariantMap info = KVPropertyList::fromFile(copy + "/Contents/Info.plist").toMap();
    info.insert("CFBundleSignature", "KvSf");
    KVPropertyList::writeFile(info, copy + "/Contents/Info.plist", KVPropertyList::Format::Xml);
    ASSERT_TRUE(runUntil(copy + "/Contents/MacOS/Installer",
                         {"-sourcePath", product, "-productCode", "KvSf", "-x"},
                         "] Updated arguments: {"));
    EXPECT_TRUE(logFile().contains("    destinationPath = \"/opt/Product.app\";"))
        << qPrintable(logFile());
}

}  // namespace
