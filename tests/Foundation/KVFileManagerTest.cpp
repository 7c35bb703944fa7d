// Copying and opening real trees in the test's private folders (trashing:
// the installer's and train's runs).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QTest>
#include <QUrl>

#include "KVFileManager.h"
#include "KVWorkspace.h"
#include "TestBundle.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

using TestFiles::makeLink;
using TestFiles::snapshot;

// A copy never replaces or follows what is at the destination (a dangling
// link too), makes no parent, never copies a folder into itself nor waits for
// a FIFO's writer; a link given as the source stays a link.
TEST(KVFileManagerTest, RefusesCopiesThatWouldDamageOrHang) {
    const QString folder = TestEnvironment::makeTempDir("files");
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
    QFile stat(proc + "/stat");  // fields 4 (parent) and 6 (session)
    ASSERT_TRUE(stat.open(QIODevice::ReadOnly));
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    EXPECT_EQ(fields.value(1).toInt(), getpid());
    EXPECT_EQ(fields.value(3).toInt(), pid);
    kill(pid, SIGKILL);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !QFileInfo::exists(proc); }, 10000));
}

// The installer trashes the old copy on every run: the second run's must not
// replace the first's, and each entry names its item's place, odd letters too.
TEST(KVWorkspaceTest, TrashKeepsEachItemOfTheSameNameRestorable) {
    const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash";
    const QString folder = TestEnvironment::makeTempDir("trash"), name = "Old Prodüct 100%.app";
    const QString first = folder + "/one/" + name, second = folder + "/two/" + name;
    QDir(trash).removeRecursively();
    const QStringList before = snapshot(TestFiles::makeProduct(first, "1"));
    ASSERT_TRUE(KVWorkspace::moveToTrash(first));
    ASSERT_TRUE(KVWorkspace::moveToTrash(TestFiles::makeProduct(second, "2")));
    EXPECT_EQ(snapshot(trash + "/files/" + name), before);
    QStringList restorable;
    for (const QString &entry : QDir(trash + "/info").entryList(QDir::Files)) {
        QFile info(trash + "/info/" + entry);
        const QByteArray path = info.open(QIODevice::ReadOnly) ? info.readAll().split('\n')[1] : "";
        restorable << QUrl::fromPercentEncoding(path.mid(5)) + " " +
                          TestFiles::markerOf(trash + "/files/" + entry.chopped(10));
    }
    restorable.sort();
    EXPECT_EQ(restorable, QStringList({first + " 1", second + " 2"}));
}
