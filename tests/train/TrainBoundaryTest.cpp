// The privileged tool as a hostile local user meets it: the unprivileged user
// runs "train" through the real pkexec and polkit (a rule grants it) on what
// the user controls, and tries to get root to write, read or hand out more.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <QDirIterator>
#include <QThread>
#include <memory>

#include "Polkit.h"
#include "Relaunch.h"
#include "TestEnvironment.h"
#include "TestFiles.h"
#include "ToolRun.h"

namespace {
using TestFiles::local;
using TestFiles::makeFile;

// Permitted and effective CAP_NET_RAW in the kernel's version-2 format.
const QByteArray kCapability(
    "\x01\x00\x00\x02\x00\x20\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
    "\x00\x00\x00\x00",
    20);

class TrainBoundaryTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        if (Relaunch::isRoot()) s_polkit = std::make_unique<Polkit>(true);
    }
    static void TearDownTestSuite() { s_polkit.reset(); }

    void SetUp() override {
        if (!Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
        ASSERT_TRUE(s_polkit->ok()) << qPrintable(s_polkit->error());
        const passwd *entry = getpwnam(qPrintable(Relaunch::unprivilegedUser()));
        ASSERT_NE(entry, nullptr);
        uid = entry->pw_uid;
        gid = entry->pw_gid;
        // A volume of the test's own, where the user's trash is made, reachable
        // by the user, with the tool copied there, where the user can run it.
        ASSERT_EQ(mount("kvtest", local(folder).constData(), "tmpfs", 0, "mode=0755"), 0);
        mounted = true;
        for (QString path = QFileInfo(folder).path(); path != QDir::tempPath();
             path = QFileInfo(path).path())
            chmod(local(path).constData(), 0755);
        ASSERT_TRUE(QFile::copy(KV_TRAIN_TOOL, tool));
        chmod(local(tool).constData(), 0755);
        QDir().mkpath(rootOnly);
        makeFile(rootOnly + "/keep", "root's", 0644);
        ASSERT_FALSE(TestFiles::makeProduct(source, "new").isNull());
        QDir().mkpath(mine + "/Applications");
        giveToUser(mine);
    }

    void TearDown() override {
        if (mounted) umount2(local(folder).constData(), MNT_DETACH);
    }

    // What the user owns is the user's, links included.
    void giveToUser(const QString &path) const {
        lchown(local(path).constData(), uid, gid);
        QDirIterator items(path,
                           QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                           QDirIterator::Subdirectories);
        while (items.hasNext()) lchown(local(items.next()).constData(), uid, gid);
    }

    static QStringList asUser(const QStringList &command) {
        return QStringList{"-u", Relaunch::unprivilegedUser(), "--"} + command;
    }
    ToolRun train(const QStringList &arguments) const {
        return runTool("runuser",
                       asUser(QStringList{"env", "-u", "SHELL", "pkexec", tool} + arguments));
    }
    static bool makeFolder(const QString &path, mode_t mode) {
        return QDir().mkpath(path) && chmod(local(path).constData(), mode) == 0;
    }

    // Nothing but root's own file in root's folder.
    void expectRootsFolderUntouched() const {
        EXPECT_EQ(QDir(rootOnly).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                           QDir::NoDotAndDotDot),
                  QStringList{"keep"});
    }

    inline static std::unique_ptr<Polkit> s_polkit;
    uid_t uid = 0;
    gid_t gid = 0;
    bool mounted = false;
    const QString folder = TestEnvironment::makeTempDir("boundary");
    const QString tool = folder + "/train";
    const QString rootOnly = folder + "/root-only";  // root's: the user may not write here
    const QString mine = folder + "/mine";
    const QString source = mine + "/Volume/Product.app";
};

// No set-id or sticky bit, group or other write, capability or trusted attribute.
TEST_F(TrainBoundaryTest, InstalledItemsAreRootsAndGiveNoMoreRights) {
    const QString contents = source + "/Contents";
    const QByteArray setuid = local(contents + "/MacOS/Setuid");
    ASSERT_TRUE(makeFile(contents + "/MacOS/Setuid", "#!/bin/sh\n", 0755) &&
                makeFile(contents + "/MacOS/Setgid", "#!/bin/sh\n", 0755) &&
                makeFile(contents + "/Resources/Open", "rewrite me", 0777) &&
                makeFolder(contents + "/Open", 0777) && makeFolder(contents + "/Sticky", 01777));
    giveToUser(mine);
    // After the change of owner, which takes set-id bits and capabilities away.
    ASSERT_TRUE(chmod(setuid.constData(), 04755) == 0 &&
                chmod(local(contents + "/MacOS/Setgid").constData(), 02755) == 0 &&
                setxattr(setuid.constData(), "security.capability", kCapability.constData(),
                         kCapability.size(), 0) == 0 &&
                setxattr(setuid.constData(), "trusted.kv", "t", 1, 0) == 0 &&
                setxattr(setuid.constData(), "user.kv", "u", 1, 0) == 0);
    const QString installed = rootOnly + "/Product.app";
    const ToolRun run = train({source, installed});
    ASSERT_EQ(run.status, 0) << qPrintable(run.errors);
    QStringList items{installed};
    QDirIterator walk(installed, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                      QDirIterator::Subdirectories);
    while (walk.hasNext()) items << walk.next();
    EXPECT_EQ(items.size(), 11);
    for (const QString &item : items) {
        struct stat status;
        ASSERT_EQ(lstat(local(item).constData(), &status), 0);
        EXPECT_TRUE(status.st_uid == 0 && status.st_gid == 0) << qPrintable(item);
        EXPECT_EQ(status.st_mode & 07022, 0u) << qPrintable(item);
    }
    const QByteArray copy = local(installed + "/Contents/MacOS/Setuid");
    char value[64];
    EXPECT_EQ(getxattr(copy.constData(), "user.kv", value, sizeof value), 1);
    EXPECT_EQ(getxattr(copy.constData(), "security.capability", value, sizeof value), -1);
    EXPECT_EQ(getxattr(copy.constData(), "trusted.kv", value, sizeof value), -1);
}

// Root reads nothing the user could not (a root-only bundle, a hard link to a
// root-only file, a file only root's groups may read, /proc, /root), nor a
// device or FIFO; nothing is installed and no staging item stays behind.
TEST_F(TrainBoundaryTest, SourcesAreReadWithTheUsersRightsAndHoldNoDevices) {
    const QString secret = folder + "/secret", volume = mine + "/Volume";
    ASSERT_FALSE(TestFiles::makeProduct(secret + "/Hidden.app", "secret").isNull());
    chmod(local(secret).constData(), 0700);
    makeFile(secret + "/password", "hunter2", 0600);
    for (const char *name : {"/Group.app", "/Fifo.app", "/Device.app"})
        ASSERT_FALSE(TestFiles::makeProduct(volume + name, "new").isNull());
    // The null device's numbers: harmless, and readable by everyone.
    ASSERT_TRUE(mknod(local(volume + "/Fifo.app/Contents/item").constData(), S_IFIFO | 0666, 0) ==
                    0 &&
                mknod(local(volume + "/Device.app/Contents/item").constData(), S_IFCHR | 0666,
                      makedev(1, 3)) == 0);
    giveToUser(mine);
    // Made by root: the kernel lets no user link another's file.
    ASSERT_EQ(link(local(secret + "/password").constData(),
                   local(source + "/Contents/password").constData()),
              0);
    ASSERT_TRUE(makeFile(volume + "/Group.app/Contents/group-secret", "root's group", 0640));
    for (const QString &from :
         {secret + "/Hidden.app", source, QString("/proc/1/root"), QString("/root"),
          volume + "/Group.app", volume + "/Fifo.app", volume + "/Device.app"}) {
        EXPECT_EQ(train({from, rootOnly + "/Product.app"}).status, 2) << qPrintable(from);
        expectRootsFolderUntouched();
    }
}

// No link in the destination path is followed; one at the destination is replaced.
TEST_F(TrainBoundaryTest, NoLinkInTheDestinationPathIsFollowed) {
    const QStringList before = TestFiles::snapshot(rootOnly);
    QDir().mkpath(mine + "/a/b");
    TestFiles::makeLink(mine + "/to-root", rootOnly);
    TestFiles::makeLink(mine + "/a/to-root", rootOnly);
    TestFiles::makeLink(mine + "/a/b/Product.app", rootOnly + "/keep");
    makeFile(mine + "/plain", "not a bundle", 0644);
    giveToUser(mine);
    const QStringList refused[] = {{source, mine + "/to-root/Product.app"},
                                   {source, mine + "/a/to-root/Product.app"},
                                   {source, mine + "/a/to-root/../Product.app"},
                                   {mine + "/plain", rootOnly + "/keep"}};
    for (const QStringList &arguments : refused)
        EXPECT_NE(train(arguments).status, 0) << qPrintable(arguments.join(" "));
    EXPECT_EQ(train({source, mine + "/a/b/Product.app"}).status, 0);
    EXPECT_EQ(TestFiles::markerOf(mine + "/a/b/Product.app"), "new");
    EXPECT_EQ(TestFiles::snapshot(rootOnly), before);
}

// A low limit of the user's could end the copy half-way at a moment the user chooses.
TEST_F(TrainBoundaryTest, TheUsersResourceLimitsAreLifted) {
    const QString large = "/Contents/Resources/large";
    ASSERT_TRUE(makeFile(source + large, QByteArray(65536, 'x'), 0644));
    giveToUser(mine);
    const ToolRun run =
        runTool("runuser", asUser({"prlimit", "--fsize=4096:unlimited", "env", "-u", "SHELL",
                                   "pkexec", tool, source, rootOnly + "/Product.app"}));
    EXPECT_EQ(run.status, 0) << qPrintable(run.errors);
    EXPECT_EQ(QFileInfo(rootOnly + "/Product.app" + large).size(), 65536);
}

// Wrapper items are replaced only in a folder holding the product; too deep a tree fails.
TEST_F(TrainBoundaryTest, WrappersAndDeepTreesCannotReachRootsItems) {
    const QString wrapper = mine + "/Volume";
    makeFile(wrapper + "/keep", "the user's", 0755);
    // The bundle, Contents and 255 more: one folder deeper than 256.
    QString deep = mine + "/Deep.app/Contents";
    for (int level = 0; level < 255; ++level) deep += "/d";
    QDir().mkpath(deep);
    makeFile(mine + "/Deep.app/Contents/Info.plist", "<plist/>", 0644);
    giveToUser(mine);
    const QStringList before = TestFiles::snapshot(rootOnly);
    EXPECT_EQ(train({source, rootOnly + "/Product.app", wrapper}).status, 2);
    EXPECT_EQ(TestFiles::snapshot(rootOnly), before);
    EXPECT_EQ(train({mine + "/Deep.app", rootOnly + "/Deep.app"}).status, 2);
    expectRootsFolderUntouched();
}

// Every write goes through folders root opened itself, whatever the user swaps meanwhile.
TEST_F(TrainBoundaryTest, ExchangingFoldersDuringTheCopyRedirectsNoWrite) {
    for (int i = 0; i < 200; ++i)
        makeFile(source + QString("/Contents/Resources/%1").arg(i), "x", 0644);
    const QString applications = mine + "/Applications";
    TestFiles::makeProduct(applications + "/Product.app", "old");
    TestFiles::makeLink(applications + "/trap", rootOnly);
    TestFiles::makeLink(mine + "/trap", rootOnly);
    giveToUser(mine);
    const QStringList before = TestFiles::snapshot(rootOnly);
    const pid_t attacker = fork();
    if (attacker == 0) {
        // Only system calls from here: the child of a threaded process.
        if (setgid(gid) != 0 || setuid(uid) != 0) _exit(1);
        const QByteArray apps = local(applications), top = local(mine);
        const int appsFolder = open(apps.constData(), O_PATH | O_DIRECTORY);
        const int topFolder = open(top.constData(), O_PATH | O_DIRECTORY);
        for (;;) {
            renameat2(appsFolder, ".Product.app.installing", appsFolder, "trap", RENAME_EXCHANGE);
            renameat2(appsFolder, "Product.app", appsFolder, "trap", RENAME_EXCHANGE);
            renameat2(topFolder, "Applications", topFolder, "trap", RENAME_EXCHANGE);
        }
    }
    ASSERT_GT(attacker, 0);
    int installed = 0;
    for (int run = 0; run < 200; ++run)
        installed += train({source, applications + "/Product.app"}).status == 0;
    kill(attacker, SIGKILL);
    waitpid(attacker, nullptr, 0);
    EXPECT_EQ(TestFiles::snapshot(rootOnly), before);
    EXPECT_GT(installed, 0);
}

// The old copy goes to the user's trash on its volume, or stays beside the new one.
TEST_F(TrainBoundaryTest, TheReplacedCopyGoesWhereTheUserCanRestoreIt) {
    const QString volume = folder + "/volume";
    QDir().mkpath(volume);
    // A volume whose top everyone may write, as /tmp: the user makes the trash there.
    ASSERT_EQ(mount("kvtest", local(volume).constData(), "tmpfs", 0, "size=16m,mode=1777"), 0);
    const auto unmount = qScopeGuard([&] { umount2(local(volume).constData(), MNT_DETACH); });
    const QString apps = volume + "/apps";
    TestFiles::makeProduct(apps + "/Product.app", "old");
    QDir().mkpath(volume + "/mine");
    giveToUser(volume + "/mine");

    ASSERT_EQ(train({source, apps + "/Product.app"}).status, 0);
    EXPECT_EQ(TestFiles::markerOf(apps + "/Product.app"), "new");
    const QString trash = volume + QString("/.Trash-%1").arg(uid);
    EXPECT_EQ(TestFiles::markerOf(trash + "/files/Product.app"), "old");
    QFile info(trash + "/info/Product.app.trashinfo");
    ASSERT_TRUE(info.open(QIODevice::ReadOnly));
    EXPECT_TRUE(info.readAll().startsWith("[Trash Info]\nPath=apps/Product.app\nDeletionDate="));
    EXPECT_EQ(QFileInfo(info).ownerId(), uid);
    for (const QStringList &command :
         {QStringList{"mv", trash + "/files/Product.app", volume + "/mine/"},
          QStringList{"rm", "-r", volume + "/mine/Product.app"}})
        EXPECT_EQ(QProcess::execute("runuser", asUser(command)), 0);

    // A trash not wholly the user's is never used: a root's info folder (if
    // open to all), or a root's file in its place.
    const auto keptBeside = [&] {
        const ToolRun run = train({source, apps + "/Product.app"});
        EXPECT_EQ(run.status, 0);
        EXPECT_TRUE(
            run.errors.contains("Kept the replaced copy as " + apps + "/Product (replaced).app"))
            << qPrintable(run.errors);
        EXPECT_EQ(TestFiles::markerOf(apps + "/Product (replaced).app"), "new");
        QDir(apps + "/Product (replaced).app").removeRecursively();
    };
    ASSERT_EQ(lchown(local(trash + "/info").constData(), 0, 0), 0);
    chmod(local(trash + "/info").constData(), 0777);
    keptBeside();
    QDir(trash).removeRecursively();
    makeFile(trash, "root's file", 0600);
    keptBeside();
}

// With the project's action installed pkexec asks for it, not the generic one the rule grants.
TEST_F(TrainBoundaryTest, TheProjectsPolkitActionIsUsedWhenPresent) {
    QFile templateFile(KV_POLICY_TEMPLATE);
    ASSERT_TRUE(templateFile.open(QIODevice::ReadOnly));
    const QString action = "/usr/share/polkit-1/actions/org.velmora.installer.install.policy";
    ASSERT_TRUE(TestEnvironment::writeFile(
        action, templateFile.readAll().replace("@KV_TRAIN_PATH@", local(tool))));
    const auto remove = qScopeGuard([&] { QFile::remove(action); });
    QProcess lookup;
    for (int i = 0; i < 100; ++i) {
        lookup.start("pkaction", {"--action-id", "org.velmora.installer.install", "--verbose"});
        lookup.waitForFinished();
        if (lookup.exitCode() == 0) break;
        QThread::msleep(50);
    }
    // The dialog's text names the command line.
    EXPECT_TRUE(lookup.readAllStandardOutput().contains("$(command_line)"));
    EXPECT_EQ(train({source, rootOnly + "/Product.app"}).status, 127);
    expectRootsFolderUntouched();
}

}  // namespace
