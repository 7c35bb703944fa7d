// Choosing the destination and asking running copies to quit, with real processes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QProcess>
#include <QScopeGuard>

#include "InstallerRun.h"
#include "KVProcess.h"
#include "Relaunch.h"

namespace {

class DestinationTest : public testing::Test, protected InstallerRun::SetUpController {
protected:
    void SetUp() override {
        folder = TestEnvironment::makeTempDir("dest");
        installed = TestEnvironment::makeInstalledDir("dest");
        ASSERT_FALSE(installed.isNull());
    }
    void TearDown() override {
        for (pid_t pid : children) TestBundle::stop(pid);
        QDir(autostart()).removeRecursively();
    }

    InstallerWinController &controllerWith(const QStringList &words) {
        const QString product = TestBundle::make(folder, "Source", {{"CFBundleSignature", "Srce"}});
        setUpController(QStringList{"/x/I", "-sourcePath", product} + words, "/opt/I.app");
        return *controller;
    }
    QString runCopy(const QString &where, const QString &name, const QString &code) {
        const QString bundle = TestBundle::make(where, name, {{"CFBundleSignature", code}});
        children << TestBundle::start(TestBundle::executableOf(bundle));
        return bundle;
    }
    static QString autostart() { return qEnvironmentVariable("XDG_CONFIG_HOME") + "/autostart"; }
    static void addLoginItem(const QString &file, const QString &exec) {
        TestEnvironment::writeFile(autostart() + "/" + file,
                                   "[Desktop Entry]\nType=Application\nExec=" + exec.toUtf8());
    }

    QString folder, installed;  // installed: outside the temporary folders, where copies count
    QList<pid_t> children;
};
using QuitProcessesTest = DestinationTest;
using InBundleQuitProcesses = DestinationTest;

// The main code wins over an earlier alternative one, which counts only with two codes;
// a login item is preferred, but not one on an install image.
TEST_F(DestinationTest, RunningCopyToReplaceAndLoginItems) {
    runCopy(installed + "/home/.Trash", "Trashed", "Kv2a");
    const QString alternative = runCopy(installed + "/a", "Alt", "Kv2b");
    const QString main = runCopy(installed + "/b", "Main", "Kv2a");
    auto &c = controllerWith({"-productCode", "Kv2a", "Kv2b"});
    EXPECT_EQ(c.pathToProcessToReplace(), main);
    TestBundle::stop(children.takeLast());
    EXPECT_EQ(c.pathToProcessToReplace(), alternative);
    EXPECT_TRUE(controllerWith({"-productCode", "Kv2a"}).pathToProcessToReplace().isNull());

    const QString product = TestBundle::make(installed, "Product Pro", {});
    addLoginItem("b.desktop", "\"" + TestBundle::executableOf(product) + "\" --hidden");
    auto &d = controllerWith({"-productCode", "Kv4a"});
    EXPECT_TRUE(d.autoLaunchPathFor("product").isNull());  // case counts
    EXPECT_EQ(d.findPreferredDestinationFor("Product"), product);
    QDir(autostart()).removeRecursively();

    const QString image = TestBundle::make(folder + "/Volumes/Name-Install", "Name", {});
    addLoginItem("2.desktop", TestBundle::executableOf(image));
    const QString running = runCopy(installed + "/run", "Name", "Kv5a");
    EXPECT_EQ(controllerWith({"-productCode", "Kv5a"}).findPreferredDestinationFor("Name"),
              running);
}

// Each rule to the letter: a prefix is not a substring, a name needs its neighbour.
TEST_F(DestinationTest, UnsupportedFoldersFollowTheirExactRules) {
    InstallerWinController c({"/x"}, "/opt/I.app");
    const QString unsupported =
        "/Users/x/build/tov/N.app /Users/x/builds/a/tov/N.app /Volumes/N-Install/N.app "
        "/Users/x/.Trash/N.app /home/u/.local/share/Trash/files/N.app /mnt/usb/N.app "
        "/private/var/folders/N.app /media/u/P-Install/N.app /tmp/N.app /run/media/u/P/N.app "
        "/var/tmp/a/N.app /dev/shm/N.app /srv/disk/.Trash-1000/files/N.app";
    const QString supported =
        "/Users/x/build/N.app /Volumes/N/N.app /x/private/var/N.app "
        "/srv/disk/.Trash-x/N.app /home/u/media/a/N.app";
    for (const QString &path : unsupported.split(' '))
        EXPECT_TRUE(c.isInUnsupportedFolder(path)) << qPrintable(path);
    for (const QString &path : supported.split(' '))
        EXPECT_FALSE(c.isInUnsupportedFolder(path)) << qPrintable(path);

    // A link is replaced, not written through: its folder decides, even when dangling.
    QFile::link(folder + "/gone", folder + "/Dangling.app");
    LogCapture capture;
    EXPECT_TRUE(c.canWriteToPath(folder + "/Dangling.app"));
    EXPECT_EQ(capture.text(), "");
}

// The product would be installed onto itself: wherever the medium is, through links too.
TEST_F(DestinationTest, CopyRunningFromAMediumIsNeverReplaced) {
    if (!Relaunch::isRoot()) GTEST_SKIP() << "mounts a file system";
    const QString volume = installed + "/media/kvtest/Product-Install";
    QDir().mkpath(volume);
    ASSERT_EQ(QProcess::execute("mount", {"-t", "tmpfs", "tmpfs", volume}), 0);
    const auto unmount = qScopeGuard([&] {
        TestBundle::stopProcessesAt(volume);
        QProcess::execute("umount", {"-l", volume});
    });
    runCopy(volume, "Name", "Kv7a");
    QFile::link(volume, installed + "/Link");
    auto &c = controllerWith({"-productCode", "Kv7a"});
    EXPECT_TRUE(c.pathToProcessToReplace().isNull());
    EXPECT_TRUE(c.isInUnsupportedFolder(installed + "/Link/Name.app"));
    EXPECT_FALSE(c.isInUnsupportedFolder(installed + "/Name.app"));
}

// The code is this run's own, as another suite on the machine may run the test.
TEST_F(QuitProcessesTest, InstallerIsNeverAskedToQuitNorReported) {
    if (Relaunch::isCopy()) GTEST_SKIP() << "runs in the normal test run only";
    const QString code = "Q" + TestBundle::productCode().mid(1);
    qputenv("KV_SELF_TEST_CODE", code.toLatin1());
    TestBundle::make(folder, "SelfTest", {{"CFBundleSignature", code}}, false);
    EXPECT_TRUE(Relaunch::copyPasses(folder + "/SelfTest.app/Contents/MacOS/SelfTest",
                                     "InBundleQuitProcesses.*"));
}

TEST_F(InBundleQuitProcesses, OtherCopiesQuitInListOrderWhileTheInstallerItselfStays) {
    if (!Relaunch::isCopy()) GTEST_SKIP() << "runs in a copy inside a bundle";
    const QString code = qEnvironmentVariable("KV_SELF_TEST_CODE");
    ASSERT_EQ(KVProcess::currentProcess()->signatureString(), code);
    const QString other = runCopy(installed, "Other", code);
    runCopy(installed + "/2", "Another", code);
    auto &c = controllerWith({"-productCode", code});
    EXPECT_EQ(c.pathToProcessToReplace(), other);
    LogCapture capture;
    EXPECT_EQ(c.processToQuitStillRunning(), "Other");
    c.quitProcesses();
    EXPECT_TRUE(c.processToQuitStillRunning().isNull() && c.pathToProcessToReplace().isNull());
    EXPECT_EQ(capture.messages().filter(code),
              (QStringList{"Still running '" + code + "': Other", "Quitting '" + code + "': Other",
                           "Quitting '" + code + "': Another"}));
    EXPECT_FALSE(capture.messages().join(QChar(10)).contains("SelfTest"));
}

}  // namespace
