// Copying, removing, trashing and opening real trees in the test's private folders.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFileInfo>
#include <QTest>

#include "KVFileManager.h"
#include "KVWorkspace.h"
#include "TestBundle.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

using TestFiles::makeLink;
using TestFiles::snapshot;

class KVFileManagerTest : public testing::Test {
protected:
    const QString folder = TestEnvironment::makeTempDir("files");
};

// A copy never replaces or follows what is at the destination (a dangling
// link too), makes no parent, never copies a folder into itself nor waits for
// a FIFO's writer. A link given as the source stays a link.
TEST_F(KVFileManagerTest, RefusesCopiesThatWouldDamageOrHang) {
    TestEnvironment::writeFile(folder + "/source/inner/file", "new");
    TestEnvironment::writeFile(folder + "/file", "old");
    QDir().mkpath(folder + "/folder");
    makeLink(folder + "/dangling", "missing");
    makeLink(folder + "/alias", "source/inner");
    ASSERT_EQ(mkfifo(TestFiles::local(folder + "/source/pipe").constData(), 0644), 0);
    const QStringList before = snapshot(folder);
    // clang-format off
    const char *refused[][2] = {
        {"/source", "/file"}, {"/source/inner/file", "/file"}, {"/source", "/folder"},
        {"/source", "/dangling"}, {"/source/inner/file", "/dangling"}, {"/source", "/a/b/copy"},
        {"/source", "/source/copy"}, {"/source", "/alias/copy"}, {"/source/pipe", "/pipe-copy"}};
    // clang-format on
    for (const auto &[from, to] : refused)
        EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + from, folder + to)) << from << to;
    EXPECT_EQ(snapshot(folder), before);
    EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + "/source", folder + "/copy"));

    ASSERT_TRUE(KVFileManager::copyItemAtPath(folder + "/alias", folder + "/link-copy"));
    EXPECT_EQ(QFileInfo(folder + "/link-copy").symLinkTarget(), folder + "/source/inner");
}

// Removing follows no link, neither inside the tree nor the item itself.
TEST_F(KVFileManagerTest, RemovesTreesAndLinksWithoutFollowingLinks) {
    const QString outside = TestEnvironment::makeTempDir("outside");
    ASSERT_TRUE(TestEnvironment::writeFile(outside + "/kept/file", "keep"));
    const QStringList before = snapshot(outside);
    const QString tree = TestFiles::makeRichBundle(folder, "Tree");
    ASSERT_FALSE(tree.isNull());
    makeLink(tree + "/to-folder", outside + "/kept");
    makeLink(tree + "/Contents/to-file", outside + "/kept/file");
    makeLink(folder + "/link", outside + "/kept");
    for (const QString &item : {tree, folder + "/link"}) {
        EXPECT_TRUE(KVFileManager::removeItemAtPath(item)) << qPrintable(item);
        EXPECT_FALSE(QFileInfo(item).exists() || QFileInfo(item).isSymLink()) << qPrintable(item);
    }
    EXPECT_EQ(snapshot(outside), before);
}

// GIO leaks the info text it built when it cannot move an item: not ours to free.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

// Unchanged; same names get names of their own. What cannot be moved stays
// whole, with no half entry.
TEST(KVWorkspaceTrashTest, MovesItemsToTheHomeTrashWhole) {
    const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash";
    const QString folder = TestEnvironment::makeTempDir("trash");
    TestFiles::ImmutableItems locks;
    QDir(trash).removeRecursively();
    const QString name = "Old Prodüct 100%.app";
    const QString first = TestFiles::makeProduct(folder + "/one/" + name, "first");
    const QString second = TestFiles::makeProduct(folder + "/two/" + name, "second");
    const QString locked = TestFiles::makeProduct(folder + "/Locked.app", "locked");
    const QStringList before = snapshot(first);
    ASSERT_TRUE(KVWorkspace::moveToTrash(first));
    ASSERT_TRUE(KVWorkspace::moveToTrash(second));
    EXPECT_FALSE(QFileInfo::exists(first) || QFileInfo::exists(second));
    if (locks.lock(locked)) {  // chattr +i needs root
        if (__lsan_disable) __lsan_disable();
        EXPECT_FALSE(KVWorkspace::moveToTrash(locked));
        if (__lsan_enable) __lsan_enable();
        EXPECT_EQ(TestFiles::markerOf(locked), "locked");
        EXPECT_EQ(QDir(trash + "/info").count(), 2 + 2);  // with "." and ".."
    }
    EXPECT_EQ(QDir(trash + "/files").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 2);
    EXPECT_EQ(snapshot(trash + "/files/" + name), before);
}

// Started in its own session from home, with only the standard streams open,
// all on /dev/null, whatever the opener has open; the opener's child.
TEST(KVWorkspaceTest, ApplicationsStartAsTheDesktopStartsThem) {
    const QString bundle = TestBundle::make(TestEnvironment::makeTempDir("open"), "Opened");
    const int inherited = open("/dev/null", O_RDONLY);
    ASSERT_TRUE(KVWorkspace::openFile(bundle));
    close(inherited);
    pid_t pid = 0;
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return (pid = TestBundle::runningFrom(bundle)) > 0; }, 10000));
    const QString proc = QString("/proc/%1").arg(pid);
    // A sanitizer's runtime may hold a file open for a moment; an inherited one stays.
    const auto descriptors = [&] {
        return QDir(proc + "/fd").entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    };
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            return descriptors() == QStringList{"0", "1", "2"};
        },
        5000))
        << qPrintable(descriptors().join(' '));
    for (const char *fd : {"0", "1", "2"})
        EXPECT_EQ(QFile::symLinkTarget(proc + "/fd/" + fd), "/dev/null") << fd;
    EXPECT_EQ(QFile::symLinkTarget(proc + "/cwd"), QFileInfo(QDir::homePath()).canonicalFilePath());
    // Fields 4 (parent) and 6 (session) of its stat line.
    QFile stat(proc + "/stat");
    ASSERT_TRUE(stat.open(QIODevice::ReadOnly));
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    EXPECT_EQ(fields.value(1).toInt(), getpid());
    EXPECT_EQ(fields.value(3).toInt(), pid);
    kill(pid, SIGKILL);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !QFileInfo::exists(proc); }, 10000));
}
