// InstallApplication and the tool "train" on real files, also as a hostile user meets it.
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/syscall.h>
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
using Result = std::pair<int, QString>;  // a status and the log lines, or standard error

Result install(const QString &source, const QString &destination, const QString &wrapper = {}) {
    LogCapture log;
    const int status = InstallApplication(source, destination, wrapper);
    return {status, log.messages().join('\n')};
}

Result runTool(const QString &program, const QStringList &arguments, const QString &in = {}) {
    QProcess tool;
    tool.setWorkingDirectory(in);
    tool.start(program, arguments);
    const bool ended = tool.waitForFinished(60000) && tool.exitStatus() == QProcess::NormalExit;
    return {ended ? tool.exitCode() : -1, QString::fromUtf8(tool.readAllStandardError())};
}

// A tmpfs, or a bind mount of from, at the path while it lives.
struct Mount {
    Mount(const QString &at, const char *options, const QString &from = "kvtest")
        : path(local(at)),
          ok(QDir().mkpath(at) && mount(local(from), path, options ? "tmpfs" : nullptr,
                                        options ? 0 : MS_BIND, options) == 0) {}
    ~Mount() {
        if (ok) umount2(path, MNT_DETACH);
    }
    const QByteArray path;
    const bool ok;
};

// A wrapper with items and a product of its own; a non-ASCII name travels unchanged.
class InstallTest : public testing::Test {
protected:
    void SetUp() override {
        QDir(trash).removeRecursively();
        ASSERT_TRUE(!makeProduct(source, "new").isNull() &&
                    !makeProduct(wrapper + "/" + name, "wrapper's").isNull() &&
                    makeFile(wrapper + "/Read Me.txt", "new read me", 0644) &&
                    makeFile(wrapper + "/bin/tool", "#!/bin/sh\n", 0755) &&
                    makeFile(wrapper + "/.hidden", "h", 0600) && QDir().mkpath(apps));
    }
    QStringList trashed() const { return entries(trash + "/files"); }
    // Taken of the wrapper before the install, which changes access times.
    static QStringList auxiliaryItems(const QString &folder) {
        return snapshot(folder).filter(QRegularExpression("^\\./(Read Me|bin|\\.hidden)"));
    }
    Result train(const QStringList &arguments) const {
        return runTool(KV_TRAIN_TOOL, arguments, folder);
    }

    const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash", name = "Prodüct 2.app";
    const QString folder = TestEnvironment::makeTempDir("install"), apps = folder + "/Applications";
    const QString source = folder + "/Volume/" + name, wrapper = folder + "/Volume/Product Folder";
    const QString destination = apps + "/" + name, installed = apps + "/Product Folder";
    const QString wrappedDestination = installed + "/" + name;
};

// Links, modes, times and attributes survive; wrapper items replace installed ones, others stay.
TEST_F(InstallTest, TrainInstallsIdenticalCopiesWithTheirWrapper) {
    const QString rich = makeRichBundle(folder + "/Volume", "Rich"), target = apps + "/Rich.app";
    makeProduct(target, "old");
    QStringList before = snapshot(rich);
    EXPECT_EQ(train({rich, target}), Result(0, ""));
    EXPECT_EQ(snapshot(target), before);
    EXPECT_EQ(markerOf(trash + "/files/Rich.app"), "old");
    for (const bool again : {false, true}) {
        QDir(trash).removeRecursively();
        if (again) makeFile(installed + "/bin/stale-tool", "old", 0644);
        if (again) makeFile(installed + "/Mine", "the user's", 0644);
        const QStringList auxiliary = auxiliaryItems(wrapper);
        before = snapshot(source);
        EXPECT_EQ(train({source, wrappedDestination, wrapper}), Result(0, ""));
        EXPECT_EQ(auxiliaryItems(installed), auxiliary);
        EXPECT_EQ(QFileInfo::exists(installed + "/Mine"), again);
        EXPECT_EQ(snapshot(wrappedDestination), before);
        EXPECT_EQ(trashed(), QStringList{name});
        EXPECT_EQ(markerOf(trash + "/files/" + name), "wrapper's");
    }
}

TEST_F(InstallTest, TrainRejectsWrongArgumentsWithUsageAndTouchesNothing) {
    const QStringList before = snapshot(folder);
    const Result usage(64, "usage: train source-path destination-path [wrapper-path]\n");
    // clang-format off
    for (const QStringList &arguments : QList<QStringList>{{}, {source}, {"", destination},
            {source, destination, wrapper, folder}, {"Volume/" + name, destination},
            {source, "Applications/" + name}, {source, destination, ""},
            {source + "\n", destination}})
        EXPECT_EQ(train(arguments), usage) << qPrintable(arguments.join(" | "));
    // clang-format on
    // A name that is no text would be installed under another one than authorised.
    const QString invalid = QString("exec \"$0\" \"$(printf '%1/\\377.app')\" \"$1\"").arg(folder);
    EXPECT_EQ(QProcess::execute("/bin/sh", {"-c", invalid, KV_TRAIN_TOOL, destination}), 64);
    EXPECT_EQ(snapshot(folder), before);
}

// No bundle, no place for the wrapper, or the destination under another name or around it.
TEST_F(InstallTest, WhatCannotBeInstalledIsRefused) {
    makeProduct(destination, "old");
    makeProduct(destination + "/Contents/Inner.app", "inner");
    makeLink(folder + "/loop.app", folder + "/loop.app");
    makeFile(folder + "/plain.app", "plain", 0644);
    QDir().mkpath(folder + "/Empty.app/Contents");
    makeLink(folder + "/alias.app", source);
    makeLink(apps + "/Alias.app", source);
    const Mount bound(folder + "/Bound.app", nullptr, source);
    if (!bound.ok) GTEST_SKIP() << "bind mounts need root";
    const QStringList before = snapshot(folder);
    for (const QString from : {"/Missing.app", "/loop.app", "/plain.app", "/Empty.app"})
        EXPECT_EQ(install(folder + from, destination),
                  Result(2, "ERROR -- Could not copy myself to " + destination));
    const QString missing = folder + "/Missing/Product Folder";
    EXPECT_EQ(install(source, missing + "/" + name, wrapper),
              Result(2, "ERROR -- Could not copy wrapper to " + missing));
    // clang-format off
    const QString pairs[][2] = {{source, source}, {folder + "/alias.app", source},
        {source, apps + "/Alias.app"}, {folder + "/Bound.app", source},
        {source, source + "/Contents/Copy.app"}, {destination + "/Contents/Inner.app", destination}
    };
    // clang-format on
    for (const auto &[from, to] : pairs)
        EXPECT_EQ(install(from, to),
                  Result(2, "ERROR -- Will not install " + from + " over or into itself: " + to));
    EXPECT_EQ(snapshot(folder), before);
    EXPECT_EQ(trashed(), QStringList());
    // A link names the bundle; 250 bytes leave room for the staging name.
    const QString longName = apps + "/" + QString(246, 'L') + ".app";
    const QStringList bundle = snapshot(source);
    EXPECT_EQ(install(folder + "/alias.app", longName), Result(0, ""));
    EXPECT_EQ(snapshot(longName), bundle);
}

// An installed item neither trashed nor deleted ends the run; the old copy stays.
TEST_F(InstallTest, AnItemThatCannotGoEndsTheRunWithItsLogLines) {
    const QString target = installed + "/Read Me.txt";
    makeFile(target, "old read me", 0644);
    makeProduct(wrappedDestination, "installed");
    makeProduct(destination, "old");
    const auto chattr = [](const char *flag, const QString &path) {
        return QProcess::execute("chattr", {flag, path}) == 0;
    };
    const auto unlock = qScopeGuard([&] { chattr("-i", target), chattr("-i", destination); });
    if (!chattr("+i", target) || !chattr("+i", destination)) GTEST_SKIP() << "chattr needs root";
    EXPECT_EQ(install(source, wrappedDestination, wrapper),
              Result(2, "ERROR -- Could not delete " + target +
                            "\nERROR -- Could not copy auxiliary item to " + target));
    EXPECT_EQ(install(source, destination),
              Result(1, "ERROR -- Could not trash '" + destination +
                            "'\nERROR -- Could not trash existing " + destination));
    EXPECT_NE(markerOf(wrappedDestination), "new");
    EXPECT_EQ(markerOf(destination), "old");
    EXPECT_EQ(entries(apps), (QStringList{"Product Folder", name}));
}

// Killed, cancelled or out of disk, the copy leaves the old one.
TEST_F(InstallTest, AnInterruptedCopyLeavesTheOldCopyInPlace) {
    for (int i = 0; i < 3000; ++i)  // so that a copy still runs when stopped
        makeFile(source + QString("/Contents/Resources/%1").arg(i), "x", 0644);
    const QString staging = apps + "/." + name + ".installing";
    const auto copying = [&](const auto &running) {
        while (!QFileInfo::exists(staging + "/Contents/Resources") && running())
            QThread::usleep(100);
    };
    makeProduct(destination, "old");
    QProcess tool;
    tool.start(KV_TRAIN_TOOL, {source, destination});
    copying([&] { return tool.waitForStarted() && tool.state() == QProcess::Running; });
    tool.kill();
    tool.waitForFinished();
    ASSERT_TRUE(QFileInfo::exists(staging)) << "the copy ended before it could be killed";
    EXPECT_EQ(markerOf(destination), "old");
    EXPECT_EQ(train({source, destination}).first, 0);
    EXPECT_FALSE(markerOf(destination) != "new" || QFileInfo::exists(staging));
    makeProduct(destination, "old");
    std::atomic<int> result = -1;
    std::thread run([&] { result = InstallApplication(source, destination, {}); });
    copying([&] { return result < 0; });
    InstallApplicationCancel();
    run.join();
    EXPECT_EQ(markerOf(destination), "old");
    EXPECT_EQ(result.load(), 2);
    EXPECT_EQ(trashed(), QStringList{name});  // the first run's
    EXPECT_FALSE(QFileInfo::exists(staging));
    const QString small = folder + "/Small", target = small + "/" + name;
    const Mount volume(small, "size=1m");  // less than the 3000 files take
    if (!volume.ok) GTEST_SKIP() << "mounting needs root";
    makeProduct(target, "old");
    EXPECT_EQ(install(source, target), Result(2, "ERROR -- Could not copy myself to " + target));
    EXPECT_EQ(markerOf(target), "old");
    EXPECT_EQ(entries(small), QStringList{name});
}

// A second installation into the folder starts only once the first has ended.
TEST_F(InstallTest, ASecondInstallationIntoTheFolderWaitsForTheFirst) {
    const int first = open(local(apps), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(first, LOCK_EX), 0);
    QProcess tool;
    tool.start(KV_TRAIN_TOOL, {source, destination});
    ASSERT_TRUE(tool.waitForStarted());
    QFile calls(QString("/proc/%1/syscall").arg(tool.processId()));
    const QByteArray sleeping = QByteArray::number(SYS_clock_nanosleep) + ' ';
    // Until it sleeps between two tries at the lock, or ends.
    while (!tool.waitForFinished(1) &&
           !(calls.open(QIODevice::ReadOnly) && calls.readAll().startsWith(sleeping)))
        calls.close();
    EXPECT_EQ(entries(apps), QStringList());
    close(first);
    ASSERT_TRUE(tool.waitForFinished(60000));
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_EQ(QString::fromUtf8(tool.readAllStandardError()).section("] ", 1),
              "Waited for another installation into " + apps + " to end\n");
    EXPECT_EQ(markerOf(destination), "new");
}

class TrainBoundaryTest : public testing::Test {
protected:
    void SetUp() override {
        if (!Relaunch::isRoot()) GTEST_SKIP() << "runs from root";
        ASSERT_TRUE(polkit.ok()) << qPrintable(polkit.error());
        const passwd *entry = getpwnam(qPrintable(Relaunch::unprivilegedUser()));
        ASSERT_TRUE(entry && volume.ok);
        uid = entry->pw_uid, gid = entry->pw_gid;
        for (QString path = folder; path != QDir::tempPath(); path = QFileInfo(path).path())
            chmod(local(path), 0755);
        ASSERT_TRUE(QFile::copy(KV_TRAIN_TOOL, tool) && chmod(local(tool), 0755) == 0 &&
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
    const QString tool = folder + "/train", mine = folder + "/mine",
                  source = mine + "/Volume/Product.app";
    const QString rootOnly = folder + "/root-only";  // the user may not write here
};

// No set-id or sticky bit, group or other write, capability or other attribute.
TEST_F(TrainBoundaryTest, InstalledItemsAreRootsAndGiveNoMoreRights) {
    const QString contents = source + "/Contents/", installed = rootOnly + "/Product.app";
    const QByteArray setuid = local(contents + "MacOS/Setuid");
    const std::pair<QString, mode_t> items[] = {
        {"MacOS/Setuid", 04755}, {"MacOS/Setgid", 02755}, {"Open", 0777}, {"Sticky/", 01777}};
    for (const auto &[item, mode] : items)
        ASSERT_TRUE(item.endsWith('/') ? QDir().mkpath(contents + item)
                                       : makeFile(contents + item, "#!/bin/sh\n", 0755));
    giveToUser(mine);
    // After chown, which clears them; CAP_NET_RAW in the kernel's version-2 format.
    const QByteArray capability("\x01\0\0\x02\0\x20\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
    for (const auto &[item, mode] : items) ASSERT_EQ(chmod(local(contents + item), mode), 0);
    ASSERT_TRUE(setxattr(setuid, "security.capability", capability, 20, 0) == 0 &&
                setxattr(setuid, "trusted.kv", "t", 1, 0) == 0 &&
                setxattr(setuid, "user.kv", "u", 1, 0) == 0);
    ASSERT_EQ(train({source, installed}), Result(0, ""));
    EXPECT_EQ(snapshot(installed).size(), 9);
    EXPECT_EQ(runTool("find", {installed, "(", "-perm", "/7022", "-o", "!", "-uid", "0", "-o", "!",
                               "-gid", "0", ")", "-fprint", "/dev/stderr"}),
              Result(0, ""));
    const QString copy = installed + "/Contents/MacOS/Setuid";
    EXPECT_EQ(snapshot(copy)[0].section(' ', 6), "user.kv=75");  // after size and hash
    EXPECT_EQ(getxattr(local(copy), "security.capability", nullptr, 0), -1);
}

// Root reads, follows or replaces nothing the user could not; no user limit cuts the copy.
TEST_F(TrainBoundaryTest, WhatTheUserControlsCannotReachRootsItems) {
    const QString secret = folder + "/secret", volume = mine + "/Volume";
    QString deep = mine + "/Deep.app/Contents";  // the bundle, Contents and 255 more
    for (int level = 0; level < 255; ++level) deep += "/d";
    QDir().mkpath(deep);
    makeFile(mine + "/Deep.app/Contents/Info.plist", "<plist/>", 0644);
    makeProduct(secret + "/Hidden.app", "secret");
    chmod(local(secret), 0700);
    makeFile(secret + "/password", "hunter2", 0600);
    for (const char *name : {"/Group.app", "/Fifo.app", "/Device.app", "/Linked.app"})
        makeProduct(volume + name, "new");
    ASSERT_EQ(mknod(local(volume + "/Fifo.app/Contents/item"), S_IFIFO | 0666, 0), 0);
    ASSERT_EQ(mknod(local(volume + "/Device.app/Contents/item"), S_IFCHR | 0666, makedev(1, 3)), 0);
    makeFile(volume + "/keep", "the user's", 0755);
    makeFile(source + "/Contents/large", QByteArray(65536, 'x'), 0644);
    QDir().mkpath(mine + "/a/b");
    makeLink(mine + "/to-root", rootOnly);
    makeLink(mine + "/a/to-root", rootOnly);
    makeLink(mine + "/a/b/Product.app", rootOnly + "/keep");
    makeFile(mine + "/plain", "not a bundle", 0644);
    giveToUser(mine);
    // Made by root: the kernel lets no user link another's file.
    ASSERT_EQ(link(local(secret + "/password"), local(volume + "/Linked.app/Contents/password")),
              0);
    ASSERT_TRUE(makeFile(volume + "/Group.app/Contents/group-secret", "root's group", 0640));
    const QStringList before = snapshot(rootOnly + "/keep");
    const QString product = rootOnly + "/Product.app";
    // clang-format off
    for (const QStringList &arguments : {QStringList{secret + "/Hidden.app", product},
            {volume + "/Linked.app", product}, {"/proc/1/root", product}, {"/root", product},
            {volume + "/Group.app", product}, {volume + "/Fifo.app", product},
            {volume + "/Device.app", product}, {source, product, volume},
            {mine + "/Deep.app", rootOnly + "/Deep.app"}, {source, mine + "/to-root/Product.app"},
            {source, mine + "/a/to-root/Product.app"}, {source, mine + "/a/to-root/../Product.app"},
            {mine + "/plain", rootOnly + "/keep"}}) {
        // clang-format on
        EXPECT_EQ(train(arguments).first, 2) << qPrintable(arguments.join(" "));
        EXPECT_EQ(entries(rootOnly), QStringList{"keep"});
    }
    EXPECT_EQ(snapshot(rootOnly + "/keep"), before);
    EXPECT_EQ(train({source, mine + "/a/b/Product.app"}).first, 0);
    EXPECT_EQ(markerOf(mine + "/a/b/Product.app"), "new");
    EXPECT_EQ(train({source, product}, {"prlimit", "--fsize=4096:unlimited"}), Result(0, ""));
    EXPECT_EQ(QFileInfo(product + "/Contents/large").size(), 65536);
}

// Every write goes through folders root opened, whatever the user swaps meanwhile.
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
        const int apps = open(local(applications), O_PATH | O_DIRECTORY);
        const int top = open(local(mine), O_PATH | O_DIRECTORY);
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

// The old copy goes to the user's trash, or beside the new one if that is not wholly the user's.
TEST_F(TrainBoundaryTest, TheReplacedCopyGoesWhereTheUserCanRestoreIt) {
    const QString top = folder + "/volume", apps = top + "/apps", product = apps + "/Product.app";
    const QString kept = apps + "/Product (replaced).app",
                  trash = QString("%1/.Trash-%2").arg(top).arg(uid);
    // Open to all, as /tmp: the user makes the trash.
    const Mount volume(top, "size=16m,mode=1777");
    ASSERT_TRUE(volume.ok && !makeProduct(product, "old").isNull());
    ASSERT_EQ(train({source, product}).first, 0);
    EXPECT_EQ(markerOf(product), "new");
    EXPECT_EQ(markerOf(trash + "/files/Product.app"), "old");
    QFile info(trash + "/info/Product.app.trashinfo");
    ASSERT_TRUE(info.open(QIODevice::ReadOnly));
    EXPECT_TRUE(info.readAll().startsWith("[Trash Info]\nPath=apps/Product.app\nDeletionDate="));
    EXPECT_EQ(QFileInfo(info).ownerId(), uid);
    EXPECT_EQ(QProcess::execute("runuser", asUser({"mv", trash + "/files/Product.app", mine})), 0);
    for (const bool rootsFile : {false, true}) {
        if (rootsFile) QDir(trash).removeRecursively();
        ASSERT_TRUE(rootsFile ? makeFile(trash, "root's file", 0600)
                              : lchown(local(trash + "/info"), 0, 0) == 0 &&
                                    chmod(local(trash + "/info"), 0777) == 0);
        const auto [status, errors] = train({source, product});
        EXPECT_EQ(status, 0);
        EXPECT_TRUE(errors.contains("Kept the replaced copy as " + kept)) << qPrintable(errors);
        EXPECT_EQ(markerOf(kept), "new");
        QDir(kept).removeRecursively();
    }
}

}  // namespace
