// The installer application started as a real process, the two ways a
// product or a user starts it.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>

#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

class StartupTest : public testing::Test {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("startup");
        stateHome = folder + "/state";
        product = TestBundle::make(folder + "/Volumes/Product", "Product",
                                   {{"CFBundleSignature", "Kv6a"},
                                    {"CFBundleShortVersionString", "2.1"}});
        QDir().mkpath(folder + "/Applications");
    }

    // Runs the installer executable with the arguments; returns its exit code.
    int run(const QString &executable, const QStringList &arguments) {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", stateHome);
        process.setProcessEnvironment(env);
        process.start(executable, arguments);
        EXPECT_TRUE(process.waitForFinished(30000));
        output = QString::fromUtf8(process.readAllStandardError() + process.readAllStandardOutput());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    QString logFile() const {
        QFile file(stateHome + "/VelmoraInstaller.log");
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    QStringList roadOfOneInstallation() const {
        return {"-productName", "Product", "-version", "2.1", "-sourcePath", product,
                "-productCode", "Kv6a", "-completionSound", "YES", "-destinationPath",
                folder + "/Applications/Product.app", "-quitCode", "Kv6q"};
    }

    const QString installer = QStringLiteral(KV_INSTALLER_APP "/Contents/MacOS/Installer");
    QString folder, stateHome, product, output;
};

TEST_F(StartupTest, LaunchedWithArgumentsAppendsTheDescriptionToTheLogFile) {
    ASSERT_EQ(run(installer, roadOfOneInstallation()), 0) << qPrintable(output);
    EXPECT_TRUE(output.isEmpty()) << qPrintable(output);
    const QString log = logFile();
    EXPECT_TRUE(log.contains("] arguments: (\n    \"" + installer + "\",\n    \"-productName\",\n"))
        << qPrintable(log);
    EXPECT_TRUE(log.contains("] Updated arguments: {\n")) << qPrintable(log);
    EXPECT_TRUE(log.contains("    quitCode =     (\n        Kv6q,\n        Kv6a\n    );\n"))
        << qPrintable(log);
    EXPECT_TRUE(log.contains("    destinationPath = \"" + folder + "/Applications/Product.app\";"))
        << qPrintable(log);

    // The log is appended to, never truncated.
    ASSERT_EQ(run(installer, roadOfOneInstallation()), 0);
    EXPECT_EQ(logFile().count("] Updated arguments: {"), 2);
}

TEST_F(StartupTest, InstallerInsideTheProductDescribesTheProductWithoutLogFile) {
    const QString inside = product + "/Contents/Resources/Installer.app";
    ASSERT_TRUE(QProcess::execute("cp", {"-a", KV_INSTALLER_APP, inside}) == 0);
    ASSERT_EQ(run(inside + "/Contents/MacOS/Installer", {}), 0) << qPrintable(output);
    EXPECT_TRUE(output.contains("] direct invocation\n"));
    EXPECT_TRUE(output.contains("] shortened path = " + product + "/Contents\n"));
    EXPECT_TRUE(output.contains("] shortened path = " + product + "\n"));
    EXPECT_TRUE(output.contains("    sourcePath = \"" + product + "\";")) << qPrintable(output);
    EXPECT_TRUE(output.contains("    productName = Product;"));
    EXPECT_TRUE(logFile().isNull());
}

TEST_F(StartupTest, LanguageFlagOrFewWordsMeanDirectInvocation) {
    EXPECT_EQ(run(installer, {"-AppleLanguages", "(de)", "-sourcePath", product}), 0);
    EXPECT_TRUE(output.contains("] direct invocation\n")) << qPrintable(output);
    EXPECT_TRUE(logFile().isNull());
}

TEST_F(StartupTest, SetupErrorEndsWithStatusOne) {
    // The build tree's installer is inside no product.
    EXPECT_EQ(run(installer, {}), 1);
    EXPECT_TRUE(output.endsWith("] missing source path\n")) << qPrintable(output);
}

TEST_F(StartupTest, UnopenableLogFileFallsBackToNothing) {
    // A file where the log folder should be: neither stream can be reopened.
    TestEnvironment::writeFile(stateHome, "in the way");
    EXPECT_EQ(run(installer, roadOfOneInstallation()), 0);
    EXPECT_TRUE(output.isEmpty()) << qPrintable(output);
}

TEST_F(StartupTest, InstallerItselfIsNeverTakenForARunningCopy) {
    // The installer's own signature as product code: the only running process
    // with it is the installer, so the Applications folder is chosen.
    ASSERT_EQ(run(installer, {"-sourcePath", product, "-productCode", "VlIn", "-x"}), 0);
    EXPECT_TRUE(logFile().contains("    destinationPath = \"/opt/Product.app\";"))
        << qPrintable(logFile());
}

}  // namespace
