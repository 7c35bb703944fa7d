// Copying, removing, listing and trashing real trees in the test's private folders.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QUrl>
#include <cstdio>

#include "KVFileManager.h"
#include "KVWorkspace.h"
#include "Relaunch.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

using TestFiles::makeLink;
using TestFiles::snapshot;

class KVFileManagerTest : public testing::Test {
protected:
    const QString folder = TestEnvironment::makeTempDir("files");
};

// A copy keeps everything a bundle holds: links as links, modes, times to the
// nanosecond, extended attributes; a link given as the source stays a link.
TEST_F(KVFileManagerTest, CopiesABundleOrALinkUnchanged) {
    const QString source = TestFiles::makeRichBundle(folder + "/source", "Product");
    ASSERT_FALSE(source.isNull());
    const QStringList before = snapshot(source);
    ASSERT_TRUE(KVFileManager::copyItemAtPath(source, folder + "/Product.app"));
    EXPECT_EQ(snapshot(folder + "/Product.app"), before);

    ASSERT_TRUE(makeLink(folder + "/link", "source"));
    ASSERT_TRUE(KVFileManager::copyItemAtPath(folder + "/link", folder + "/link-copy"));
    EXPECT_EQ(QFileInfo(folder + "/link-copy").symLinkTarget(), folder + "/source");
    EXPECT_EQ(snapshot(folder + "/link-copy"), snapshot(folder + "/link"));
}

// A copy never replaces or follows what is at the destination (a dangling link too),
// makes no parent, never copies a folder into itself nor waits for a FIFO's writer;
// refused copies change nothing.
TEST_F(KVFileManagerTest, RefusesCopiesThatWouldDamageOrHang) {
    TestEnvironment::writeFile(folder + "/source/inner/file", "new");
    TestEnvironment::writeFile(folder + "/file", "old");
    QDir().mkpath(folder + "/folder");
    makeLink(folder + "/dangling", "missing");
    makeLink(folder + "/alias", "source/inner");
    ASSERT_EQ(mkfifo(TestFiles::local(folder + "/source/pipe").constData(), 0644), 0);
    const QStringList before = snapshot(folder);
    const char *refused[][2] = {{"/source", "/file"},       {"/source/inner/file", "/file"},
                                {"/source", "/folder"},     {"/source/inner/file", "/folder"},
                                {"/source", "/dangling"},   {"/source/inner/file", "/dangling"},
                                {"/source", "/a/b/copy"},   {"/source", "/source/copy"},
                                {"/source", "/alias/copy"}, {"/source/pipe", "/pipe-copy"}};
    for (const auto &[from, to] : refused)
        EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + from, folder + to)) << from << to;
    EXPECT_EQ(snapshot(folder), before);
    EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + "/source", folder + "/copy"));
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

// Listing keeps the file system's order, shows hidden and non-ASCII names and dangling
// links (items to replace or trash), and follows a link to a folder.
TEST_F(KVFileManagerTest, ListsItemsAsTheFileSystemHasThem) {
    for (int i = 0; i < 40; ++i) TestEnvironment::writeFile(folder + QString("/f%1").arg(i), "");
    TestEnvironment::writeFile(folder + "/.hidden", "");
    TestEnvironment::writeFile(folder + "/Sub Folder/inner", "");
    TestEnvironment::writeFile(folder + "/Résumé", "");
    makeLink(folder + "/dangling", "missing");
    makeLink(folder + "/link", "Sub Folder");
    // QDirIterator walks a folder unsorted, in the order readdir returns.
    QStringList expected;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (it.hasNext()) expected << QFileInfo(it.next()).fileName();
    ASSERT_EQ(expected.size(), 45);
    EXPECT_EQ(KVFileManager::contentsOfDirectoryAtPath(folder), expected);
    EXPECT_EQ(KVFileManager::contentsOfDirectoryAtPath(folder + "/link"), QStringList{"inner"});

    bool isDirectory = true;
    EXPECT_TRUE(KVFileManager::fileExistsAtPath(folder + "/dangling", &isDirectory));
    EXPECT_FALSE(isDirectory);
    EXPECT_FALSE(KVFileManager::fileExistsAtPath(folder + "/missing"));
}

// Real trashing through the desktop's library into the private home's emptied trash.
class KVWorkspaceTrashTest : public testing::Test {
protected:
    void SetUp() override { QDir(trash).removeRecursively(); }

    QString trashInfo(const QString &name) const {
        QFile file(trash + "/info/" + name + ".trashinfo");
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    // The original path a .trashinfo records (Path= is URL-escaped).
    static QString originalPath(const QString &info) {
        static const QRegularExpression path("^Path=(.*)$", QRegularExpression::MultilineOption);
        return QUrl::fromPercentEncoding(path.match(info).captured(1).toUtf8());
    }

    const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash";
    const QString folder = TestEnvironment::makeTempDir("trash");
    TestFiles::ImmutableItems locks;
};

// The trash keeps items unchanged and records their URL-escaped origin so the desktop
// can put them back; same names get names of their own. An item that cannot be moved
// stays whole where it is, with no half entry in the trash.
TEST_F(KVWorkspaceTrashTest, MovesItemsToTheHomeTrashWithTheirOriginalPaths) {
    const QString name = "Old Prodüct 100%.app";
    const QString first = TestFiles::makeProduct(folder + "/one/" + name, "first");
    const QString second = TestFiles::makeProduct(folder + "/two/" + name, "second");
    const QString locked = TestFiles::makeProduct(folder + "/Locked.app", "locked");
    const QStringList before = TestFiles::snapshot(first);
    ASSERT_TRUE(KVWorkspace::moveToTrash(first));
    ASSERT_TRUE(KVWorkspace::moveToTrash(second));
    EXPECT_FALSE(QFileInfo::exists(first) || QFileInfo::exists(second));
    if (locks.lock(locked)) {  // chattr +i needs root
        EXPECT_FALSE(KVWorkspace::moveToTrash(locked));
        EXPECT_EQ(TestFiles::markerOf(locked), "locked");
        EXPECT_EQ(QDir(trash + "/info").count(), 2 + 2);  // with "." and ".."
    }

    const QString info = trashInfo(name);
    EXPECT_TRUE(info.contains(QRegularExpression(
        "^\\[Trash Info\\]\nPath=/.*%20.*\nDeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n")))
        << qPrintable(info);
    QSet<QString> paths;
    const auto trashed = [&] {
        return QDir(trash + "/files").entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    };
    for (const QString &entry : trashed()) paths << originalPath(trashInfo(entry));
    EXPECT_EQ(paths, (QSet<QString>{first, second}));

    // Restoring is moving it back to the recorded path.
    ASSERT_EQ(rename(TestFiles::local(trash + "/files/" + name).constData(),
                     TestFiles::local(originalPath(info)).constData()),
              0);
    EXPECT_EQ(TestFiles::snapshot(first), before);
    ASSERT_EQ(trashed().size(), 1);
    EXPECT_EQ(TestFiles::markerOf(trash + "/files/" + trashed().value(0)), "second");
}

// GIO reads $XDG_DATA_HOME once per process, so a fresh copy of this program tries a
// data folder that does not exist yet: the trash is made with its parents, private.
TEST_F(KVWorkspaceTrashTest, MakesTheTrashWhenTheDataFolderDoesNotExistYet) {
    if (!Relaunch::isCopy()) {
        EXPECT_TRUE(
            Relaunch::copyPasses(folder + "/bin/tests", "KVWorkspaceTrashTest.MakesTheTrash*"));
        return;
    }
    // The copy runs this test alone and ends with it: nothing to put back.
    const QString dataHome = TestEnvironment::root() + "/not/made/yet/share";
    qputenv("XDG_DATA_HOME", TestFiles::local(dataHome));
    ASSERT_TRUE(KVWorkspace::moveToTrash(TestFiles::makeProduct(folder + "/P.app", "p")));
    EXPECT_EQ(TestFiles::markerOf(dataHome + "/Trash/files/P.app"), "p");
    struct stat status;
    ASSERT_EQ(stat(TestFiles::local(dataHome + "/Trash").constData(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
}
