#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include "KVFileManager.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

using TestFiles::local;

// Copies of real trees in the test's private temporary folder.
class KVFileManagerCopyTest : public testing::Test {
protected:
    const QString folder = TestEnvironment::makeTempDir("copy");
};

TEST_F(KVFileManagerCopyTest, CopiesABundleWithItsLinksModesTimesAndAttributesUnchanged) {
    const QString source = TestFiles::makeRichBundle(folder + "/source", "Product");
    ASSERT_FALSE(source.isNull());
    const QStringList before = TestFiles::snapshot(source);
    QDir().mkpath(folder + "/copies");
    const QString copy = folder + "/copies/Product.app";

    ASSERT_TRUE(KVFileManager::copyItemAtPath(source, copy));
    EXPECT_EQ(TestFiles::snapshot(copy), before);
}

TEST_F(KVFileManagerCopyTest, CopiesALinkGivenAsTheSourceAsALink) {
    QDir().mkpath(folder + "/target");
    TestEnvironment::writeFile(folder + "/target/file", "t");
    ASSERT_TRUE(TestFiles::makeLink(folder + "/link", "target"));

    ASSERT_TRUE(KVFileManager::copyItemAtPath(folder + "/link", folder + "/copy"));
    EXPECT_EQ(QFileInfo(folder + "/copy").symLinkTarget(), folder + "/target");
    EXPECT_EQ(TestFiles::snapshot(folder + "/copy"), TestFiles::snapshot(folder + "/link"));
}

TEST_F(KVFileManagerCopyTest, FailsWhenSomethingIsAtTheDestinationAndLeavesItAlone) {
    TestEnvironment::writeFile(folder + "/source/inside", "new");
    TestEnvironment::writeFile(folder + "/file", "old");
    QDir().mkpath(folder + "/folder");
    TestFiles::makeLink(folder + "/dangling", "missing");

    for (const QString destination : {"/file", "/folder", "/dangling"}) {
        SCOPED_TRACE(destination.toStdString());
        const QStringList before = TestFiles::snapshot(folder + destination);
        EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + "/source", folder + destination));
        EXPECT_FALSE(
            KVFileManager::copyItemAtPath(folder + "/source/inside", folder + destination));
        EXPECT_EQ(TestFiles::snapshot(folder + destination), before);
    }
    EXPECT_FALSE(QFileInfo::exists(folder + "/missing"));
}

TEST_F(KVFileManagerCopyTest, CreatesNoMissingParentFolder) {
    TestEnvironment::writeFile(folder + "/source/file", "s");
    EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + "/source", folder + "/a/b/copy"));
    EXPECT_FALSE(QFileInfo::exists(folder + "/a"));
}

TEST_F(KVFileManagerCopyTest, FailsOnAFifoInsteadOfWaitingForAWriter) {
    TestEnvironment::writeFile(folder + "/source/file", "s");
    ASSERT_EQ(mkfifo(local(folder + "/source/pipe").constData(), 0644), 0);
    EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + "/source/pipe", folder + "/pipe-copy"));
    EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + "/source", folder + "/copy"));
}

TEST_F(KVFileManagerCopyTest, RefusesToCopyAFolderIntoItself) {
    TestEnvironment::writeFile(folder + "/source/inner/file", "s");
    TestFiles::makeLink(folder + "/alias", "source/inner");
    const QStringList before = TestFiles::snapshot(folder + "/source");

    EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + "/source", folder + "/source/copy"));
    EXPECT_FALSE(KVFileManager::copyItemAtPath(folder + "/source", folder + "/alias/copy"));
    EXPECT_EQ(TestFiles::snapshot(folder + "/source"), before);
}

class KVFileManagerRemoveTest : public testing::Test {
protected:
    // Outside the trees to remove; links inside them point here.
    void SetUp() override {
        ASSERT_TRUE(TestEnvironment::writeFile(outside + "/kept/file", "keep"));
        before = TestFiles::snapshot(outside);
    }

    const QString folder = TestEnvironment::makeTempDir("remove");
    const QString outside = TestEnvironment::makeTempDir("outside");
    QStringList before;
};

TEST_F(KVFileManagerRemoveTest, RemovesAFolderTreeWithoutFollowingItsLinks) {
    const QString tree = TestFiles::makeRichBundle(folder, "Tree");
    ASSERT_FALSE(tree.isNull());
    TestFiles::makeLink(tree + "/to-folder", outside + "/kept");
    TestFiles::makeLink(tree + "/Contents/to-file", outside + "/kept/file");

    EXPECT_TRUE(KVFileManager::removeItemAtPath(tree));
    EXPECT_FALSE(QFileInfo::exists(tree));
    EXPECT_EQ(TestFiles::snapshot(outside), before);
}

TEST_F(KVFileManagerRemoveTest, RemovesALinkToAFolderButNotTheFolder) {
    TestFiles::makeLink(folder + "/link", outside + "/kept");
    EXPECT_TRUE(KVFileManager::removeItemAtPath(folder + "/link"));
    EXPECT_FALSE(QFileInfo(folder + "/link").isSymLink());
    EXPECT_EQ(TestFiles::snapshot(outside), before);
}

class KVFileManagerContentsTest : public testing::Test {
protected:
    const QString folder = TestEnvironment::makeTempDir("contents");
};

TEST_F(KVFileManagerContentsTest, ListsEveryNameButTheDotEntriesInTheFileSystemsOrder) {
    for (int i = 0; i < 40; ++i) TestEnvironment::writeFile(folder + QString("/f%1").arg(i), "");
    TestEnvironment::writeFile(folder + "/.hidden", "");
    TestEnvironment::writeFile(folder + "/Sub Folder/inner", "");
    TestEnvironment::writeFile(folder + "/Résumé", "");
    TestFiles::makeLink(folder + "/dangling", "missing");

    // QDirIterator walks a folder unsorted, in the order readdir returns.
    QStringList expected;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (it.hasNext()) expected << QFileInfo(it.next()).fileName();
    ASSERT_EQ(expected.size(), 44);
    EXPECT_EQ(KVFileManager::contentsOfDirectoryAtPath(folder), expected);
}

TEST_F(KVFileManagerContentsTest, ListsTheFolderALinkPointsTo) {
    TestEnvironment::writeFile(folder + "/real/item", "");
    TestFiles::makeLink(folder + "/link", "real");
    EXPECT_EQ(KVFileManager::contentsOfDirectoryAtPath(folder + "/link"), QStringList{"item"});
}
