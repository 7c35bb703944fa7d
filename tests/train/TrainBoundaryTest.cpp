// The privileged tool as a hostile local user meets it: the unprivileged test
// user runs "train" through the real pkexec and polkit (a rule grants it) on
// sources, paths and folders that the user controls, and tries to get root
// to write, read or hand out what the user may not.
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

#include <QDir>
#include <QDirIterator>
#include <QFile>
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
        // A volume of the test's own, so that the user's trash is made on it;
        // every folder up to it reachable by the user, and the tool copied
        // there, where the user can run it.
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

    // The words of runuser that run the command as the user.
    static QStringList asUser(const QStringList &command) {
        return QStringList{"-u", Relaunch::unprivilegedUser(), "--"} + command;
    }
    // train as the user, through pkexec.
    ToolRun train(const QStringList &arguments) const {
        return runTool("runuser",
                       asUser(QStringList{"env", "-u", "SHELL", "pkexec", tool} + arguments));
    }
    static bool makeFolder(const QString &path, mode_t mode) {
        return QDir().mkpath(path) && chmod(local(path).constData(), mode) == 0;
    }

    static QStringList entries(const QString &path) {
        return QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                    QDir::NoDotAndDotDot);
    }

    inline static std::unique_ptr<Polkit> s_polkit;
    uid_t uid = 0;
    gid_t gid = 0;
    bool mounted = false;
    const QString folder = TestEnvironment::makeTempDir("boundary");
    const QString tool = folder + "/train";
    // Root's: the user may not write here.
    const QString rootOnly = folder + "/root-only";
    // The user's own: the source and a folder of Applications.
    const QString mine = folder + "/mine";
    const QString source = mine + "/Volume/Product.app";
};

// Nothing in the installed product is more than the user could make: no
// set-id or sticky bit, no write for group or others, no capability or
// trusted attribute; its user attributes come along, every item is root's.
TEST_F(TrainBoundaryTest, InstalledItemsAreRootsAndGiveNoMoreRights) {
    const QString contents = source + "/Contents";
    const QByteArray setuid = local(contents + "/MacOS/Setuid");
    ASSERT_TRUE(makeFile(contents + "/MacOS/Setuid", "#!/bin/sh\n", 04755) &&
                makeFile(contents + "/MacOS/Setgid", "#!/bin/sh\n", 02755) &&
                makeFile(contents + "/Resources/Open", "rewrite me", 0777) &&
                makeFolder(contents + "/Open", 0777) && makeFolder(contents + "/Sticky", 01777));
    ASSERT_TRUE(setxattr(setuid.constData(), "security.capability", kCapability.constData(),
                         kCapability.size(), 0) == 0 &&
                setxattr(setuid.constData(), "trusted.kv", "t", 1, 0) == 0 &&
                setxattr(setuid.constData(), "user.kv", "u", 1, 0) == 0);
    giveToUser(mine);

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
        EXPECT_EQ(status.st_uid, 0u) << qPrintable(item);
        EXPECT_EQ(status.st_gid, 0u) << qPrintable(item);
        EXPECT_EQ(status.st_mode & 07022, 0u) << qPrintable(item);
    }
    const QByteArray copy = local(installed + "/Contents/MacOS/Setuid");
    char value[64];
    EXPECT_EQ(getxattr(copy.constData(), "user.kv", value, sizeof value), 1);
    EXPECT_EQ(getxattr(copy.constData(), "security.capability", value, sizeof value), -1);
    EXPECT_EQ(getxattr(copy.constData(), "trusted.kv", value, sizeof value), -1);
}

// A device or FIFO in the bundle fails the copy; nothing is installed and no
// staging item stays behind.
TEST_F(TrainBoundaryTest, DevicesAndFifosAreRefused) {
    const QString item = source + "/Contents/Resources/item";
    QDir().mkpath(QFileInfo(item).path());
    for (const mode_t type : {S_IFIFO, S_IFCHR}) {
        SCOPED_TRACE(type);
        QFile::remove(item);
        // The null device's numbers: harmless, and readable by everyone.
        ASSERT_EQ(mknod(local(item).constData(), type | 0666, makedev(1, 3)), 0);
        giveToUser(mine);
        EXPECT_EQ(train({source, rootOnly + "/Product.app"}).status, 2);
        EXPECT_EQ(entries(rootOnly), QStringList{"keep"});
    }
}

// A link in any component of the destination would let root write where the
// user may not: none is followed. A link at the destination itself is
// replaced, never written through; a plain file as source is no bundle.
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

// Root reads nothing for the user that the user could not: a bundle in a
// root-only folder, a hard link to a root-only file inside the user's
// bundle, a path below /proc or /root.
TEST_F(TrainBoundaryTest, SourcesAreReadWithTheUsersRights) {
    const QString secret = folder + "/secret";
    ASSERT_FALSE(TestFiles::makeProduct(secret + "/Hidden.app", "secret").isNull());
    chmod(local(secret).constData(), 0700);
    makeFile(secret + "/password", "hunter2", 0600);
    giveToUser(mine);
    // Made by root: the kernel lets no user link another's file.
    ASSERT_EQ(link(local(secret + "/password").constData(),
                   local(source + "/Contents/password").constData()),
              0);
    const QString target = rootOnly + "/Product.app";
    for (const QString &from :
         {secret + "/Hidden.app", source, QString("/proc/1/root"), QString("/root")}) {
        EXPECT_EQ(train({from, target}).status, 2) << qPrintable(from);
        EXPECT_EQ(entries(rootOnly), QStringList{"keep"});
    }
}

// Nor does it read what root's groups may: a file of group root that the
// user's groups may not read fails the copy.
TEST_F(TrainBoundaryTest, SourcesAreReadWithTheUsersGroups) {
    const QString product = mine + "/Volume/Group.app";
    ASSERT_FALSE(TestFiles::makeProduct(product, "new").isNull());
    giveToUser(mine);
    ASSERT_TRUE(makeFile(product + "/Contents/group-secret", "root's group", 0640));
    EXPECT_EQ(train({product, rootOnly + "/Product.app"}).status, 2);
    EXPECT_EQ(entries(rootOnly), QStringList{"keep"});
}

// The user's limits come along through pkexec: a file larger than the user's
// soft limit on file size is installed whole all the same.
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

// A wrapper replaces the items of an installed wrapper folder only: in a
// folder that does not hold the product, root's items stay. A tree nested
// deeper than any bundle fails the copy and leaves nothing behind.
TEST_F(TrainBoundaryTest, WrappersAndDeepTreesCannotReachRootsItems) {
    const QString wrapper = mine + "/Volume";
    makeFile(wrapper + "/keep", "the user's", 0755);
    giveToUser(mine);
    const QStringList before = TestFiles::snapshot(rootOnly);
    EXPECT_EQ(train({source, rootOnly + "/Product.app", wrapper}).status, 2);
    EXPECT_EQ(TestFiles::snapshot(rootOnly), before);

    // The bundle, Contents and 255 more: one folder deeper than 256.
    QString deep = mine + "/Deep.app/Contents";
    for (int level = 0; level < 255; ++level) deep += "/d";
    QDir().mkpath(deep);
    makeFile(mine + "/Deep.app/Contents/Info.plist", "<plist/>", 0644);
    giveToUser(mine);
    EXPECT_EQ(train({mine + "/Deep.app", rootOnly + "/Deep.app"}).status, 2);
    EXPECT_EQ(entries(rootOnly), QStringList{"keep"});
}

// The user exchanges folders and links in the user's own folder while root
// copies into it; every write goes through folders root opened itself, so
// not one lands in root's folder.
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
    for (int run = 0; run < 200; ++run) {
        if (train({source, applications + "/Product.app"}).status == 0) ++installed;
    }
    kill(attacker, SIGKILL);
    waitpid(attacker, nullptr, 0);
    EXPECT_EQ(TestFiles::snapshot(rootOnly), before);
    EXPECT_GT(installed, 0);
}

// The old copy goes to the invoking user's trash on its volume, where the
// user can restore or delete it; where no trash can be made it stays beside
// the new copy under a name the log gives.
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
    EXPECT_EQ(QProcess::execute("runuser",
                                asUser({"mv", trash + "/files/Product.app", volume + "/mine/"})),
              0);
    EXPECT_EQ(QProcess::execute("runuser", asUser({"rm", "-r", volume + "/mine/Product.app"})), 0);

    // A trash that is not wholly the user's is never used: one whose info
    // folder is root's (if open to all), or a file of root's.
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

// With the project's polkit action installed, pkexec asks for it, not for
// its generic action, and the dialog's text names the command line: the
// rule that grants the generic action no longer lets the tool run.
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
    EXPECT_TRUE(lookup.readAllStandardOutput().contains("$(command_line)"));
    EXPECT_EQ(train({source, rootOnly + "/Product.app"}).status, 127);
    EXPECT_EQ(entries(rootOnly), QStringList{"keep"});
}

}  // namespace
