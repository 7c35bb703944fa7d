// The installer started as a real process, the two ways a product or a user starts it.
#include <gtest/gtest.h>

#include <QDir>
#include <QProcess>
#include <QTest>

#include "InstallerRun.h"

namespace {

class StartupTest : public testing::Test {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("startup");
        environment.insert("XDG_STATE_HOME", folder + "/state");
        product = TestBundle::make(folder + "/Volumes/Product", "Product",
                                   {{"CFBundleSignature", "Kv6a"}});
    }

    // Whether the described arguments came while the installer still ran (it waits for the user).
    bool runUntilDescribed(const QStringList &arguments, int waitMs = 20000) {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        const qsizetype logStart = log().size();  // only what this run appends
        output.clear();
        process.start(installer, arguments);
        const bool seen = QTest::qWaitFor(
            [&] {
                output += QString::fromUtf8(process.readAll());
                const QString text = log().mid(logStart);
                const qsizetype at = text.indexOf("] Updated arguments: {");
                return at >= 0 && text.indexOf("\n}\n", at) > 0;
            },
            waitMs);
        const bool running = process.state() == QProcess::Running;
        process.terminate();
        process.waitForFinished(5000);
        output += QString::fromUtf8(process.readAll());
        return seen && running;
    }
    QString log() const { return InstallerRun::logText(folder + "/state"); }
    QStringList road() const {
        return {"-sourcePath", product, "-productCode",     "Kv6a",
                "-quitCode",   "Kv6q",  "-destinationPath", folder + "/Product.app"};
    }

    const QString installer = QStringLiteral(KV_INSTALLER_APP "/Contents/MacOS/Installer");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QString folder, product, output;
};

// The event handler is installed before the log decision: its line stays out.
TEST_F(StartupTest, LaunchedWithArgumentsAppendsTheDescriptionToTheLogFile) {
    ASSERT_TRUE(runUntilDescribed(road())) << qPrintable(output);
    const QString only = "] AppleEvents installed\n";
    EXPECT_TRUE(output.endsWith(only) && output.count('\n') == 1) << qPrintable(output);
    const QString text = log();
    EXPECT_TRUE(text.contains("] arguments: (\n    \"" + installer + "\",\n    \"-sourcePath\",\n"))
        << qPrintable(text);
    EXPECT_TRUE(text.contains("    quitCode =     (\n        Kv6q,\n        Kv6a\n    );\n"));
    EXPECT_TRUE(text.contains("    destinationPath = \"" + folder + "/Product.app\";"));
    ASSERT_TRUE(runUntilDescribed({"-sourcePath", product}));
    EXPECT_EQ(log().count("] Updated arguments: {"), 2);

    // A file where the log folder should be: nothing to wait for.
    QDir(folder + "/state").removeRecursively();
    TestEnvironment::writeFile(folder + "/state", "in the way");
    EXPECT_FALSE(runUntilDescribed(road(), 1500));
    EXPECT_TRUE(output.endsWith(only) && output.count('\n') == 1) << qPrintable(output);
}

TEST_F(StartupTest, WithoutADisplayTheInstallerSaysSoAndEnds) {
    QProcessEnvironment env = InstallerRun::withoutDisplay();
    env.insert("XDG_STATE_HOME", folder + "/state");
    EXPECT_EQ(InstallerRun::runToEnd(QStringList{installer} + road(), env, &output), 1);
    const QString line =
        "] No display to show the installer on: neither DISPLAY nor WAYLAND_DISPLAY is set\n";
    EXPECT_TRUE(output.endsWith(line)) << qPrintable(output);
    EXPECT_TRUE(log().endsWith(line)) << qPrintable(log());
}

}  // namespace
