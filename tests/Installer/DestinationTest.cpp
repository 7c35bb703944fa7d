// Choosing the destination and deciding whether it is writable, with real
// login items, real running copies and real folders.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>

#include "InstallerWinController.h"
#include "KVFourCharCode.h"
#include "KVPath.h"
#include "LogCapture.h"
#include "Relaunch.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

class DestinationTest : public testing::Test {
protected:
    void SetUp() override { folder = TestEnvironment::makeTempDir("dest"); }
    void TearDown() override {
        for (pid_t pid : children) TestBundle::stop(pid);
        QDir(autostart()).removeRecursively();
    }

    // A controller whose description names these product codes.
    InstallerWinController &controllerWithCodes(const QStringList &codes) {
        const QString product = TestBundle::make(folder, "Source", {{"CFBundleSignature", "Srce"}});
        QStringList argv{"/x/Installer", "-sourcePath", product, "-destinationPath", "/opt/S.app"};
        if (!codes.isEmpty()) argv << "-productCode" << codes;
        controller = std::make_unique<InstallerWinController>(argv, "/opt/Installer.app");
        LogCapture quiet;
        controller->setUp();
        return *controller;
    }
    QString runCopy(const QString &where, const QString &name, const QString &code) {
        const QString bundle = TestBundle::make(where, name, {{"CFBundleSignature", code}});
        const pid_t pid = TestBundle::start(TestBundle::executableOf(bundle));
        EXPECT_GT(pid, 0);
        children << pid;
        return bundle;
    }
    static QString autostart() { return qEnvironmentVariable("XDG_CONFIG_HOME") + "/autostart"; }
    static void addLoginItem(const QString &file, const QString &exec, bool hidden = false) {
        TestEnvironment::writeFile(autostart() + "/" + file,
                                   "[Desktop Entry]\nType=Application\nExec=" + exec.toUtf8() +
                                       (hidden ? "\nHidden=true\n" : "\n"));
    }

    QString folder;
    QList<pid_t> children;
    std::unique_ptr<InstallerWinController> controller;
};

TEST_F(DestinationTest, UnsupportedFoldersFollowTheirExactRules) {
    InstallerWinController c({"/x"}, "/opt/I.app");
    const std::pair<const char *, bool> cases[] = {
        {"/Users/x/build/tov/Name.app", true},
        {"/Users/x/build/Name.app", false},
        {"/Users/x/builds/a/tov/Name.app", true},
        {"/Volumes/Name-Install/Name.app", true},
        {"/Volumes/Name/Name.app", false},
        {"/home/u/.local/share/Trash/files/Name.app", true},
        {"/Users/x/.Trash/Name.app", true},
        {"/private/var/folders/Name.app", true},
        {"/x/private/var/Name.app", false},
        {"/Applications/Name.app", false},
    };
    for (const auto &[path, unsupported] : cases)
        EXPECT_EQ(c.isInUnsupportedFolder(path), unsupported) << path;
    EXPECT_FALSE(c.isInUnsupportedFolder(QString()));
}

TEST_F(DestinationTest, SignatureIsFoundInACodeListByValue) {
    const OSType abcd = KVFourCharCode::fromString("ABCD");
    EXPECT_TRUE(InstallerWinController::signature(abcd, QStringList{"WXYZ", "ABCD"}));
    EXPECT_FALSE(InstallerWinController::signature(abcd, QStringList{"ABC", "ABCDE"}));
    EXPECT_FALSE(InstallerWinController::signature(abcd, QStringList{}));
    EXPECT_FALSE(InstallerWinController::signature(abcd, QVariant()));
}

TEST_F(DestinationTest, RunningCopyWithTheMainCodeWinsOverAnAlternativeCode) {
    const QString alternative = runCopy(folder + "/a", "Alt", "Kv2b");
    const QString main = runCopy(folder + "/b", "Main", "Kv2a");
    auto &c = controllerWithCodes({"Kv2a", "Kv2b"});
    EXPECT_EQ(c.pathToProcessToReplace(), main);
    TestBundle::stop(children.takeLast());
    EXPECT_EQ(c.pathToProcessToReplace(), alternative);
    // Alternative codes count only when there is more than one code.
    EXPECT_TRUE(controllerWithCodes({"Kv2a"}).pathToProcessToReplace().isNull());
    EXPECT_TRUE(controllerWithCodes({}).pathToProcessToReplace().isNull());
}

TEST_F(DestinationTest, RunningCopiesInUnsupportedFoldersAreNeverChosen) {
    runCopy(folder + "/home/.Trash", "Name", "Kv3a");
    EXPECT_TRUE(controllerWithCodes({"Kv3a"}).pathToProcessToReplace().isNull());
    const QString good = runCopy(folder + "/build/ok", "Name", "Kv3a");
    EXPECT_EQ(controllerWithCodes({"Kv3a"}).pathToProcessToReplace(), good);
}

TEST_F(DestinationTest, LoginItemWhoseNameStartsWithTheProductNameIsPreferred) {
    const QString other = TestBundle::make(folder, "Other", {});
    const QString product = TestBundle::make(folder, "Product Pro", {});
    addLoginItem("a.desktop", TestBundle::executableOf(other));
    addLoginItem("b.desktop", "\"" + TestBundle::executableOf(product) + "\" --hidden");
    auto &c = controllerWithCodes({"Kv4a"});
    EXPECT_EQ(c.autoLaunchPathFor("Product"), product);
    EXPECT_TRUE(c.autoLaunchPathFor("product").isNull());
    LogCapture capture;
    EXPECT_EQ(c.findPreferredDestinationFor("Product"), product);
    EXPECT_EQ(capture.messages(), QStringList{"autolaunch = " + product});
}

TEST_F(DestinationTest, HiddenOrUnsupportedLoginItemsFallBackToTheRunningCopy) {
    const QString hidden = TestBundle::make(folder + "/h", "Name", {});
    const QString image = TestBundle::make(folder + "/Volumes/Name-Install", "Name", {});
    addLoginItem("1.desktop", TestBundle::executableOf(hidden), true);
    addLoginItem("2.desktop", TestBundle::executableOf(image));
    const QString running = runCopy(folder + "/run", "Name", "Kv5a");
    auto &c = controllerWithCodes({"Kv5a"});
    LogCapture capture;
    EXPECT_EQ(c.findPreferredDestinationFor("Name"), running);
    EXPECT_EQ(capture.messages().value(0), "autolaunch = " + image);
    QDir(autostart()).removeRecursively();
    LogCapture none;
    c.findPreferredDestinationFor("Name");
    EXPECT_EQ(none.messages().value(0), "autolaunch = (null)");
}

TEST_F(DestinationTest, LocalizedPathAbbreviatesHomeAndHidesBundleExtension) {
    InstallerWinController c({"/x"}, "/opt/I.app");
    const QString home = KVPath::homeDirectory();
    QDir().mkpath(home + "/Applications/Name.app");
    EXPECT_EQ(c.localizedPath(home + "/Applications/Name.app"), "~/Applications/Name");
    EXPECT_EQ(c.recursiveLocalizedPath("~"), "~");
    EXPECT_EQ(c.recursiveLocalizedPath("~/Applications"), "~/Applications");
    EXPECT_EQ(c.localizedPath("/"), "/");
    EXPECT_EQ(c.localizedPath("/opt/Missing.app"), "/opt/Missing.app");
}

TEST_F(DestinationTest, ProbesLeaveNothingBehind) {
    InstallerWinController c({"/x"}, "/opt/I.app");
    EXPECT_TRUE(c.canWriteToDirectory(folder));
    EXPECT_TRUE(QDir(folder).isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden));
    EXPECT_FALSE(c.canWriteToDirectory(folder + "/missing"));
    EXPECT_FALSE(c.canWriteToFile(folder + "/missing"));
    TestEnvironment::writeFile(folder + "/f", "x");
    EXPECT_TRUE(c.canWriteToFile(folder + "/f"));
}

TEST_F(DestinationTest, UnwritablePlacesAreReportedForAnUnprivilegedUser) {
    if (!Relaunch::isRoot()) GTEST_SKIP() << "runs the user's half itself";
    QString output;
    const int status = Relaunch::runCopy(folder + "/bin/tests", "AsUserDestination.*",
                                         Relaunch::unprivilegedUser(), &output);
    EXPECT_EQ(status, 0) << qPrintable(output);
    EXPECT_TRUE(output.contains("[  PASSED  ] 4 tests")) << qPrintable(output);
}

// Run only as the unprivileged user, through the test above.
class AsUserDestination : public DestinationTest {
protected:
    void SetUp() override {
        if (!Relaunch::isCopy() || Relaunch::isRoot()) GTEST_SKIP() << "runs in a user's copy";
        DestinationTest::SetUp();
    }
};

TEST_F(AsUserDestination, ApplicationsFolderIsTheLocalOneWhenNeitherIsWritable) {
    InstallerWinController c({"/x"}, "/opt/I.app");
    LogCapture capture;
    EXPECT_EQ(c.applicationsDirectory(), "/opt");
    EXPECT_EQ(
        capture.messages(),
        (QStringList{"Can't write to /Applications, checking ~/Applications",
                     "User applicationsDirectory: " + KVPath::homeDirectory() + "/Applications"}));
}

TEST_F(AsUserDestination, ApplicationsFolderIsTheUsersOwnWhenItIsWritable) {
    QDir().mkpath(KVPath::homeDirectory() + "/Applications");
    InstallerWinController c({"/x"}, "/opt/I.app");
    LogCapture quiet;
    EXPECT_EQ(c.applicationsDirectory(), KVPath::homeDirectory() + "/Applications");
    QDir(KVPath::homeDirectory() + "/Applications").removeRecursively();
}

TEST_F(AsUserDestination, WritabilityIsDecidedOnTheItemAndTheNearestExistingFolder) {
    InstallerWinController c({"/x"}, "/opt/I.app");
    LogCapture capture;
    EXPECT_FALSE(c.canWriteToPath("/opt/Sub/Deeper/Name.app"));
    EXPECT_TRUE(c.canWriteToPath(folder + "/Sub/Name.app"));
    const QString locked = folder + "/Locked.app";
    TestEnvironment::writeFile(locked, "x");
    chmod(QFile::encodeName(locked).constData(), 0444);
    EXPECT_FALSE(c.canWriteToPath(locked));
    EXPECT_EQ(capture.messages(),
              (QStringList{"Cannot write to folder /opt", "Cannot write to item " + locked}));
}

TEST_F(AsUserDestination, FileAndFolderProbesFailWhereTheUserMayNotWrite) {
    InstallerWinController c({"/x"}, "/opt/I.app");
    const QString readOnly = folder + "/ro";
    TestEnvironment::writeFile(readOnly, "x");
    chmod(QFile::encodeName(readOnly).constData(), 0444);
    EXPECT_FALSE(c.canWriteToFile(readOnly));
    EXPECT_FALSE(c.canWriteToDirectory("/opt"));
    chmod(QFile::encodeName(folder).constData(), 0555);
    EXPECT_FALSE(c.canWriteToDirectory(folder));
    chmod(QFile::encodeName(folder).constData(), 0755);
}

}  // namespace
