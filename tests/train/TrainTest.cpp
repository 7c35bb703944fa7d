// InstallApplication and the privileged tool "train" on real files and real
// trashes: called directly, run as a program, and run as a hostile local user
// meets it, through the real pkexec and polkit on what the user controls.
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <QRegularExpression>
#include <QScopeGuard>
#include <QThread>
#include <thread>

#include "InstallFunction.h"
#include "LogCapture.h"
#include "Polkit.h"
#include "Relaunch.h"
#include "TestFiles.h"

namespace {
using namespace TestFiles;
// A status and the log lines, or standard error.
using Result = std::pair<int, QString>;

Result install(const QString &source, const QString &destination, const QString &wrapper = {}) {
    LogCapture log;
    const int status = InstallApplication(source, destination, wrapper);
    return {status, log.messages().join('\n')};
}

// -1 when it did not end normally within a minute.
Result runTool(const QString &program, const QStringList &arguments, const QString &in = {}) {
    QProcess process;
    process.setWorkingDirectory(in);
    process.start(program, arguments);
    const bool ended =
        process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit;
    return {ended ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardError())};
}

// A tmpfs at the path while it lives; ok is false when mounting is refused.
struct Mount {
    Mount(const QString &at, const char *options)
        : path(local(at)),
          ok(QDir().mkpath(at) && mount("kvtest", path.constData(), "tmpfs", 0, options) == 0) {}
    ~Mount() {
        if (ok) umount2(path.constData(), MNT_DETACH);
    }
    const QByteArray path;
    const bool ok;
};

// A wrapper folder with auxiliary items and a product of its own beside the
// newer source; the non-ASCII name checks that paths travel unchanged.
class InstallTest : public testing::Test {
protected:
    void SetUp() override {
        QDir(trash).removeRecursively();
        ASSERT_TRUE(!makeProduct(source, "new").isNull() &&
                    !makeProduct(wrapper + "/" + name, "wrapper's").isNull() &&
                    makeFile(wrapper + "/Read Me.txt", "new read me", 0644) &&
                    makeFile(wrapper + "/bin/tool", "#!/bin/sh\n", 0755) &&
                    makeFile(wrapper + "/.hidden", "h", 0600) && QDir().mkpath(applications));
    }
    QStringList trashed() const { return entries(trash + "/files"); }
    // Taken of the wrapper before the install, which changes access times.
    static QStringList auxiliaryItems(const QString &folder) {
        return snapshot(folder).filter(QRegularExpression("^\\./(Read Me|bin|\\.hidden)"));
    }
    Result train(const QStringList &arguments) const {
        return runTool(KV_TRAIN_TOOL, arguments, folder);
    }

    const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash";
    const QString name = "Prodüct 2.app";
    const QString folder = TestEnvironment::makeTempDir("install");
    const QString source = folder + "/Volume/" + name;
    const QString wrapper = folder + "/Volume/Product Folder";
    const QString applications = folder + "/Applications";
    const QString destination = applications + "/" + name;
    const QString installed = applications + "/Product Folder";
    const QString wrappedDestination = installed + "/" + name;
    ImmutableItems locks;
};

// Links, modes, nanosecond times and extended attributes survive. A wrapper's
// items replace installed ones (deleted, not trashed); others stay.
TEST_F(InstallTest, TrainInstallsIdenticalCopiesWithTheirWrapper) {
    const QString rich = makeRichBundle(folder + "/Volume", "Rich");
    const QString target = applications + "/Rich.app";
    ASSERT_FALSE(rich.isNull());
    makeProduct(target, "old");
    QStringList before = snapshot(rich);
    Result run = train({rich, target});
    EXPECT_EQ(run, Result(0, ""));
    EXPECT_EQ(snapshot(target), before);
    EXPECT_EQ(markerOf(trash + "/files/Rich.app"), "old");
    for (const bool again : {false, true}) {
        QDir(trash).removeRecursively();
        for (const QString item : {"/Read Me.txt", "/bin/stale-tool", "/Not In Wrapper"})
            if (again) makeFile(installed + item, "old", 0644);
        const QStringList auxiliary = auxiliaryItems(wrapper);
        before = snapshot(source);
        run = train({source, wrappedDestination, wrapper});
        EXPECT_EQ(run, Result(0, ""));
        EXPECT_EQ(auxiliaryItems(installed), auxiliary);
        EXPECT_EQ(snapshot(wrappedDestination), before);
        EXPECT_EQ(trashed(), QStringList{name});
        EXPECT_EQ(markerOf(trash + "/files/" + name), "wrapper's");
    }
    EXPECT_TRUE(QFileInfo::exists(installed + "/Not In Wrapper"));
}

TEST_F(InstallTest, TrainRejectsWrongArgumentsWithUsageAndTouchesNothing) {
    const QStringList before = snapshot(folder);
    // clang-format off
    const QList<QStringList> vectors = {{}, {source}, {source, destination, wrapper, folder + "/extra"},
        {"Volume/" + name, destination}, {source, "Applications/" + name}, {"", destination},
        {source, destination, ""}, {source + "\n" + destination, destination}};
    // clang-format on
    for (const QStringList &arguments : vectors) {
        const Result run = train(arguments);
        EXPECT_EQ(run.first, 64) << qPrintable(arguments.join(" | "));
        EXPECT_EQ(run.second, "usage: train source-path destination-path [wrapper-path]\n");
    }
    // A name that is no text would be installed under another name than authorised.
    const QString invalid =
        QString("exec \"$0\" \"$(printf '%1/Volume/\\377.app')\" \"$1\"").arg(folder);
    EXPECT_EQ(QProcess::execute("/bin/sh", {"-c", invalid, KV_TRAIN_TOOL, destination}), 64);
    EXPECT_EQ(snapshot(folder), before);
}

// No bundle (missing, a link loop, a file, no Info.plist), a failed copy, or an
// item neither trashed nor deleted ends the run; the old copy stays.
TEST_F(InstallTest, ACopyThatFailsEndsTheRunWithItsLogLines) {
    makeProduct(destination, "old");
    makeLink(folder + "/loop.app", folder + "/loop.app");
    makeFile(folder + "/plain.app", "plain", 0644);
    QDir().mkpath(folder + "/Empty.app/Contents");
    for (const QString from : {"/Volume/Missing.app", "/loop.app", "/plain.app", "/Empty.app"})
        EXPECT_EQ(install(folder + from, destination),
                  Result(2, "ERROR -- Could not copy myself to " + destination));
    const QString missing = folder + "/Missing/Product Folder";
    EXPECT_EQ(install(source, missing + "/" + name, wrapper),
              Result(2, "ERROR -- Could not copy wrapper to " + missing));
    EXPECT_FALSE(QFileInfo::exists(missing));
    EXPECT_EQ(markerOf(destination), "old");
    EXPECT_EQ(trashed(), QStringList());

    const QString target = installed + "/Read Me.txt";
    makeFile(target, "old read me", 0644);
    makeProduct(wrappedDestination, "installed");
    makeProduct(destination, "locked");
    if (!locks.lock(target) || !locks.lock(destination)) GTEST_SKIP() << "chattr +i needs root";
    EXPECT_EQ(install(source, wrappedDestination, wrapper),
              Result(2, "ERROR -- Could not delete " + target +
                            "\nERROR -- Could not copy auxiliary item to " + target));
    EXPECT_EQ(install(source, destination),
              Result(1, "ERROR -- Could not trash '" + destination +
                            "'\nERROR -- Could not trash existing " + destination));
    EXPECT_NE(markerOf(wrappedDestination), "new");
    EXPECT_EQ(markerOf(destination), "locked");
    EXPECT_EQ(entries(applications), (QStringList{"Product Folder", name}));
}

// The same item under another name (links, a bind mount), or one inside the other.
TEST_F(InstallTest, SourceAndDestinationThatOverlapAreRefused) {
    makeProduct(destination, "old");
    makeProduct(destination + "/Contents/Inner.app", "inner");
    makeLink(folder + "/alias.app", source);
    makeLink(applications + "/Alias.app", source);
    const QString bound = folder + "/Bound.app";
    QDir().mkpath(bound);
    if (mount(local(source).constData(), local(bound).constData(), nullptr, MS_BIND, nullptr) != 0)
        GTEST_SKIP() << "bind mounts need root";
    const auto unmount = qScopeGuard([&] { umount2(local(bound).constData(), MNT_DETACH); });
    const QStringList before = snapshot(folder);
    // clang-format off
    const QString pairs[][2] = {{source, source}, {folder + "/alias.app", source},
        {source, applications + "/Alias.app"}, {bound, source}, {source, source + "/Contents/Copy.app"},
        {destination + "/Contents/Inner.app", destination}};
    // clang-format on
    for (const auto &[from, to] : pairs)
        EXPECT_EQ(install(from, to),
                  Result(2, "ERROR -- Will not install " + from + " over or into itself: " + to));
    EXPECT_EQ(snapshot(folder), before);
    EXPECT_EQ(trashed(), QStringList());
}

// A link installs a copy of its bundle; a name near the limit of 255 bytes
// still leaves room for its staging name.
TEST_F(InstallTest, ALinkedBundleIsInstalledUnderALongName) {
    const QString longName = applications + "/" + QString(246, 'L') + ".app";
    makeLink(folder + "/link.app", source);
    const QStringList bundle = snapshot(source);
    EXPECT_EQ(install(folder + "/link.app", longName), Result(0, ""));
    EXPECT_EQ(snapshot(longName), bundle);
}

// Killed, cancelled or out of disk, the copy leaves the old one; the next run cleans up.
TEST_F(InstallTest, AnInterruptedCopyLeavesTheOldCopyInPlace) {
    for (int i = 0; i < 3000; ++i)  // so that a copy still runs when stopped
        makeFile(source + QString("/Contents/Resources/%1").arg(i), "x", 0644);
    makeProduct(destination, "old");
    const QString staging = applications + "/." + name + ".installing";
    const auto copying = [&](const auto &running) {
        while (!QFileInfo::exists(staging + "/Contents/Resources") && running())
            QThread::usleep(100);
    };
    QProcess tool;
    tool.start(KV_TRAIN_TOOL, {source, destination});
    ASSERT_TRUE(tool.waitForStarted());
    copying([&] { return tool.state() == QProcess::Running; });
    tool.kill();
    tool.waitForFinished();
    ASSERT_TRUE(QFileInfo::exists(staging)) << "the copy ended before it could be killed";
    EXPECT_EQ(markerOf(destination), "old");
    EXPECT_EQ(train({source, destination}).first, 0);
    EXPECT_EQ(markerOf(destination), "new");
    EXPECT_FALSE(QFileInfo::exists(staging));

    makeProduct(destination, "old");
    const QStringList trashedBefore = trashed();
    std::atomic<int> result = -1;
    std::thread run([&] { result = InstallApplication(source, destination, QString()); });
    copying([&] { return result < 0; });
    InstallApplicationCancel();
    run.join();
    EXPECT_EQ(result.load(), 2);
    EXPECT_EQ(markerOf(destination), "old");
    EXPECT_EQ(trashed(), trashedBefore);
    EXPECT_FALSE(QFileInfo::exists(staging));

    const QString small = folder + "/Small", target = small + "/" + name;
    const Mount volume(small, "size=1m");  // less than the 3000 files take
    if (!volume.ok) GTEST_SKIP() << "mounting needs root";
    makeProduct(target, "old");
    EXPECT_EQ(install(source, target), Result(2, "ERROR -- Could not copy myself to " + target));
    EXPECT_EQ(markerOf(target), "old");
    EXPECT_EQ(entries(small), QStringList{name});
}

// Two runs at once: the second waits for the first one's lock, and says so.
TEST_F(InstallTest, ASecondInstallationIntoTheFolderWaitsForTheFirst) {
    const int held = open(local(applications).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    QProcess tool;
    tool.start(KV_TRAIN_TOOL, {source, destination});
    EXPECT_FALSE(tool.waitForFinished(1000));
    EXPECT_FALSE(QFileInfo::exists(destination));
    close(held);
    ASSERT_TRUE(tool.waitForFinished(60000));
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_TRUE(tool.readAllStandardError().contains("Waited for another installation into " +
                                                     local(applications) + " to end"));
    EXPECT_EQ(markerOf(destination), "new");
}

class TrainBoundaryTest : public testing::Test {
protected:
    void SetUp() override {
        if (!Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
        ASSERT_TRUE(polkit.ok()) << qPrintable(polkit.error());
        const passwd *entry = getpwnam(qPrintable(Relaunch::unprivilegedUser()));
        ASSERT_NE(entry, nullptr);
        uid = entry->pw_uid, gid = entry->pw_gid;
        // A volume of the test's own, where the user's trash goes, with the tool the user runs.
        ASSERT_TRUE(volume.ok);
        for (QString path = folder; path != QDir::tempPath(); path = QFileInfo(path).path())
            chmod(local(path).constData(), 0755);
        ASSERT_TRUE(QFile::copy(KV_TRAIN_TOOL, tool) && chmod(local(tool).constData(), 0755) == 0 &&
                    makeFile(rootOnly + "/keep", "root's", 0644) &&
                    !makeProduct(source, "new").isNull());
        giveToUser(mine);
    }

    static void giveToUser(const QString &path) {
        QProcess::execute("chown", {"-hR", Relaunch::unprivilegedUser() + ":", path});
    }
    static QStringList asUser(const QStringList &command) {
        return QStringList{"-u", Relaunch::unprivilegedUser(), "--"} + command;
    }
    Result train(const QStringList &arguments, const QStringList &prefix = {}) const {
        return runTool(
            "runuser",
            asUser(prefix + QStringList{"env", "-u", "SHELL", "pkexec", tool} + arguments));
    }

    const Polkit polkit{true};
    uid_t uid = 0;
    gid_t gid = 0;
    const QString folder = TestEnvironment::makeTempDir("boundary");
    const Mount volume{folder, "mode=0755"};
    const QString tool = folder + "/train";
    const QString rootOnly = folder + "/root-only";  // the user may not write here
    const QString mine = folder + "/mine";
    const QString source = mine + "/Volume/Product.app";
};

// No set-id or sticky bit, group or other write, capability or trusted attribute.
TEST_F(TrainBoundaryTest, InstalledItemsAreRootsAndGiveNoMoreRights) {
    const QString contents = source + "/Contents/";
    const QByteArray setuid = local(contents + "MacOS/Setuid");
    const std::pair<QString, mode_t> items[] = {
        {"MacOS/Setuid", 04755}, {"MacOS/Setgid", 02755}, {"Open", 0777}, {"Sticky/", 01777}};
    for (const auto &[item, mode] : items)
        ASSERT_TRUE(item.endsWith('/') ? QDir().mkpath(contents + item)
                                       : makeFile(contents + item, "#!/bin/sh\n", 0755));
    giveToUser(mine);
    // After the change of owner, which takes set-id bits and capabilities away;
    // the capability is CAP_NET_RAW in the kernel's version-2 format.
    const QByteArray capability("\x01\0\0\x02\0\x20\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
    for (const auto &[item, mode] : items) ASSERT_EQ(chmod(local(contents + item), mode), 0);
    ASSERT_TRUE(setxattr(setuid, "security.capability", capability, 20, 0) == 0 &&
                setxattr(setuid, "trusted.kv", "t", 1, 0) == 0 &&
                setxattr(setuid, "user.kv", "u", 1, 0) == 0);
    const QString installed = rootOnly + "/Product.app";
    const Result run = train({source, installed});
    ASSERT_EQ(run.first, 0) << qPrintable(run.second);
    EXPECT_EQ(snapshot(installed).size(), 9);
    EXPECT_EQ(runTool("find", {installed, "(", "-perm", "/7022", "-o", "!", "-uid", "0", "-o", "!",
                               "-gid", "0", ")", "-fprint", "/dev/stderr"})
                  .second,
              "");
    const QByteArray copy = local(installed + "/Contents/MacOS/Setuid");
    char value[64];
    EXPECT_EQ(getxattr(copy, "user.kv", value, sizeof value), 1);
    EXPECT_EQ(getxattr(copy, "security.capability", value, sizeof value), -1);
    EXPECT_EQ(getxattr(copy, "trusted.kv", value, sizeof value), -1);
}

// Root reads nothing the user could not (a root-only bundle, a hard link to a
// root-only file, a file only root's groups may read, /proc, /root), nor a
// device or FIFO; nothing is installed and no staging item stays behind.
TEST_F(TrainBoundaryTest, SourcesAreReadWithTheUsersRightsAndHoldNoDevices) {
    const QString secret = folder + "/secret", volume = mine + "/Volume";
    ASSERT_FALSE(makeProduct(secret + "/Hidden.app", "secret").isNull());
    chmod(local(secret).constData(), 0700);
    makeFile(secret + "/password", "hunter2", 0600);
    for (const char *name : {"/Group.app", "/Fifo.app", "/Device.app"})
        ASSERT_FALSE(makeProduct(volume + name, "new").isNull());
    // The null device's numbers: harmless, and readable by everyone.
    ASSERT_EQ(mknod(local(volume + "/Fifo.app/Contents/item"), S_IFIFO | 0666, 0), 0);
    ASSERT_EQ(mknod(local(volume + "/Device.app/Contents/item"), S_IFCHR | 0666, makedev(1, 3)), 0);
    giveToUser(mine);
    // Made by root: the kernel lets no user link another's file.
    ASSERT_EQ(link(local(secret + "/password"), local(source + "/Contents/password")), 0);
    ASSERT_TRUE(makeFile(volume + "/Group.app/Contents/group-secret", "root's group", 0640));
    for (const QString &from :
         {secret + "/Hidden.app", source, QString("/proc/1/root"), QString("/root"),
          volume + "/Group.app", volume + "/Fifo.app", volume + "/Device.app"}) {
        EXPECT_EQ(train({from, rootOnly + "/Product.app"}).first, 2) << qPrintable(from);
        EXPECT_EQ(entries(rootOnly), QStringList{"keep"});
    }
}

// No link in the destination path is followed; one at the destination is replaced.
TEST_F(TrainBoundaryTest, NoLinkInTheDestinationPathIsFollowed) {
    const QStringList before = snapshot(rootOnly);
    QDir().mkpath(mine + "/a/b");
    makeLink(mine + "/to-root", rootOnly);
    makeLink(mine + "/a/to-root", rootOnly);
    makeLink(mine + "/a/b/Product.app", rootOnly + "/keep");
    makeFile(mine + "/plain", "not a bundle", 0644);
    giveToUser(mine);
    for (const QStringList &arguments : {QStringList{source, mine + "/to-root/Product.app"},
                                         {source, mine + "/a/to-root/Product.app"},
                                         {source, mine + "/a/to-root/../Product.app"},
                                         {mine + "/plain", rootOnly + "/keep"}})
        EXPECT_NE(train(arguments).first, 0) << qPrintable(arguments.join(" "));
    EXPECT_EQ(train({source, mine + "/a/b/Product.app"}).first, 0);
    EXPECT_EQ(markerOf(mine + "/a/b/Product.app"), "new");
    EXPECT_EQ(snapshot(rootOnly), before);
}

// A low limit of the user's could end the copy half-way at a moment the user
// chooses; wrapper items are replaced only in a folder holding the product;
// too deep a tree fails.
TEST_F(TrainBoundaryTest, WrappersDeepTreesAndLimitsCannotReachRootsItems) {
    const QString large = "/Contents/Resources/large";
    makeFile(source + large, QByteArray(65536, 'x'), 0644);
    makeFile(mine + "/Volume/keep", "the user's", 0755);
    QString deep = mine + "/Deep.app/Contents";  // the bundle, Contents and 255 more
    for (int level = 0; level < 255; ++level) deep += "/d";
    QDir().mkpath(deep);
    makeFile(mine + "/Deep.app/Contents/Info.plist", "<plist/>", 0644);
    giveToUser(mine);
    const QStringList before = snapshot(rootOnly);
    EXPECT_EQ(train({source, rootOnly + "/Product.app", mine + "/Volume"}).first, 2);
    EXPECT_EQ(snapshot(rootOnly), before);
    EXPECT_EQ(train({mine + "/Deep.app", rootOnly + "/Deep.app"}).first, 2);
    EXPECT_EQ(entries(rootOnly), QStringList{"keep"});
    const Result run =
        train({source, rootOnly + "/Product.app"}, {"prlimit", "--fsize=4096:unlimited"});
    EXPECT_EQ(run.first, 0) << qPrintable(run.second);
    EXPECT_EQ(QFileInfo(rootOnly + "/Product.app" + large).size(), 65536);
}

// Every write goes through folders root opened itself, whatever the user swaps meanwhile.
TEST_F(TrainBoundaryTest, ExchangingFoldersDuringTheCopyRedirectsNoWrite) {
    for (int i = 0; i < 200; ++i)
        makeFile(source + QString("/Contents/Resources/%1").arg(i), "x", 0644);
    const QString applications = mine + "/Applications";
    makeProduct(applications + "/Product.app", "old");
    makeLink(applications + "/trap", rootOnly);
    makeLink(mine + "/trap", rootOnly);
    giveToUser(mine);
    const QStringList before = snapshot(rootOnly);
    const pid_t attacker = fork();
    if (attacker == 0) {
        // Only system calls from here: the child of a threaded process.
        if (setgid(gid) != 0 || setuid(uid) != 0) _exit(1);
        const int apps = open(local(applications).constData(), O_PATH | O_DIRECTORY);
        const int top = open(local(mine).constData(), O_PATH | O_DIRECTORY);
        for (;;) {
            renameat2(apps, ".Product.app.installing", apps, "trap", RENAME_EXCHANGE);
            renameat2(apps, "Product.app", apps, "trap", RENAME_EXCHANGE);
            renameat2(top, "Applications", top, "trap", RENAME_EXCHANGE);
        }
    }
    ASSERT_GT(attacker, 0);
    int installed = 0;
    for (int run = 0; run < 200; ++run)
        installed += train({source, applications + "/Product.app"}).first == 0;
    kill(attacker, SIGKILL);
    waitpid(attacker, nullptr, 0);
    EXPECT_EQ(snapshot(rootOnly), before);
    EXPECT_GT(installed, 0);
}

// The old copy goes to the user's trash on its volume, or stays beside the new
// one when that trash is not wholly the user's (a root's info folder open to
// all, a root's file in its place).
TEST_F(TrainBoundaryTest, TheReplacedCopyGoesWhereTheUserCanRestoreIt) {
    const QString top = folder + "/volume", apps = top + "/apps",
                  kept = apps + "/Product (replaced).app";
    // Everyone may write its top, as in /tmp: the user makes the trash there.
    const Mount volume(top, "size=16m,mode=1777");
    ASSERT_TRUE(volume.ok);
    makeProduct(apps + "/Product.app", "old");
    QDir().mkpath(top + "/mine");
    giveToUser(top + "/mine");
    ASSERT_EQ(train({source, apps + "/Product.app"}).first, 0);
    EXPECT_EQ(markerOf(apps + "/Product.app"), "new");
    const QString trash = top + QString("/.Trash-%1").arg(uid);
    EXPECT_EQ(markerOf(trash + "/files/Product.app"), "old");
    QFile info(trash + "/info/Product.app.trashinfo");
    ASSERT_TRUE(info.open(QIODevice::ReadOnly));
    EXPECT_TRUE(info.readAll().startsWith("[Trash Info]\nPath=apps/Product.app\nDeletionDate="));
    EXPECT_EQ(QFileInfo(info).ownerId(), uid);
    EXPECT_EQ(
        QProcess::execute("runuser", asUser({"mv", trash + "/files/Product.app", top + "/mine/"})),
        0);
    EXPECT_EQ(QProcess::execute("runuser", asUser({"rm", "-r", top + "/mine/Product.app"})), 0);
    for (const bool rootsFile : {false, true}) {
        if (rootsFile) QDir(trash).removeRecursively();
        ASSERT_TRUE(rootsFile ? makeFile(trash, "root's file", 0600)
                              : lchown(local(trash + "/info"), 0, 0) == 0 &&
                                    chmod(local(trash + "/info"), 0777) == 0);
        const Result run = train({source, apps + "/Product.app"});
        EXPECT_EQ(run.first, 0);
        EXPECT_TRUE(run.second.contains("Kept the replaced copy as " + kept))
            << qPrintable(run.second);
        EXPECT_EQ(markerOf(kept), "new");
        QDir(kept).removeRecursively();
    }
}

}  // namespace
