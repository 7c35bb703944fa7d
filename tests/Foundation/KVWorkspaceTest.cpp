#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QUrl>
#include <cstdio>

#include "KVWorkspace.h"
#include "Relaunch.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

namespace {
// The trash of the test's private home, emptied before each test.
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

TEST_F(KVWorkspaceTrashTest, MovesTheItemToTheHomeTrashWithItsOriginalPathForRestoring) {
    const QString name = "Old Prodüct 100%.app";
    const QString item = TestFiles::makeProduct(folder + "/" + name, "old");
    const QStringList before = TestFiles::snapshot(item);

    ASSERT_TRUE(KVWorkspace::moveToTrash(item));
    EXPECT_FALSE(QFileInfo::exists(item));
    EXPECT_EQ(TestFiles::snapshot(trash + "/files/" + name), before);

    const QString info = trashInfo(name);
    EXPECT_TRUE(info.startsWith("[Trash Info]\n")) << qPrintable(info);
    EXPECT_TRUE(info.contains("%20")) << qPrintable(info);
    EXPECT_EQ(originalPath(info), item);
    EXPECT_TRUE(info.contains(
        QRegularExpression("\nDeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d")))
        << qPrintable(info);

    // Restoring is moving it back to the recorded path.
    ASSERT_EQ(rename(TestFiles::local(trash + "/files/" + name).constData(),
                     TestFiles::local(originalPath(info)).constData()),
              0);
    EXPECT_EQ(TestFiles::snapshot(item), before);
}

TEST_F(KVWorkspaceTrashTest, GivesASecondItemOfTheSameNameANameOfItsOwn) {
    const QString first = TestFiles::makeProduct(folder + "/one/Same.app", "first");
    const QString second = TestFiles::makeProduct(folder + "/two/Same.app", "second");
    ASSERT_TRUE(KVWorkspace::moveToTrash(first));
    ASSERT_TRUE(KVWorkspace::moveToTrash(second));

    const QStringList names =
        QDir(trash + "/files").entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    ASSERT_EQ(names.size(), 2);
    QSet<QString> paths;
    QSet<QByteArray> markers;
    for (const QString &name : names) {
        paths << originalPath(trashInfo(name));
        markers << TestFiles::markerOf(trash + "/files/" + name);
    }
    EXPECT_EQ(paths, (QSet<QString>{first, second}));
    EXPECT_EQ(markers, (QSet<QByteArray>{"first", "second"}));
}

TEST_F(KVWorkspaceTrashTest, LeavesAnItemThatCannotBeMovedWhereItIs) {
    const QString item = TestFiles::makeProduct(folder + "/Locked.app", "locked");
    if (!locks.lock(item)) GTEST_SKIP() << "chattr +i needs root";

    EXPECT_FALSE(KVWorkspace::moveToTrash(item));
    EXPECT_EQ(TestFiles::markerOf(item), "locked");
    EXPECT_TRUE(QDir(trash + "/files").isEmpty());
    EXPECT_TRUE(QDir(trash + "/info").isEmpty());
}

// GIO reads $XDG_DATA_HOME once per process, so a trash whose data folder
// does not exist yet is tried in a fresh copy of this test program.
TEST_F(KVWorkspaceTrashTest, WorksWhenTheDataFolderDoesNotExistYet) {
    if (Relaunch::isCopy()) GTEST_SKIP() << "runs in the normal test run only";
    QString output;
    const int status =
        Relaunch::runCopy(folder + "/bin/tests", "FreshDataHomeTrash.*", QString(), &output);
    EXPECT_EQ(status, 0) << qPrintable(output);
    EXPECT_TRUE(output.contains("[  PASSED  ] 1 test")) << qPrintable(output);
}

class FreshDataHomeTrash : public testing::Test {
protected:
    void SetUp() override {
        if (!Relaunch::isCopy()) GTEST_SKIP() << "runs in a fresh copy";
        qputenv("XDG_DATA_HOME", TestFiles::local(dataHome));
    }
    void TearDown() override { qputenv("XDG_DATA_HOME", saved); }

    const QByteArray saved = qgetenv("XDG_DATA_HOME");
    const QString dataHome = TestEnvironment::root() + "/not/made/yet/share";
};

TEST_F(FreshDataHomeTrash, MakesThePrivateTrashFolderWithItsParents) {
    const QString item =
        TestFiles::makeProduct(TestEnvironment::makeTempDir("fresh") + "/P.app", "p");
    ASSERT_FALSE(QFileInfo::exists(TestEnvironment::root() + "/not"));

    ASSERT_TRUE(KVWorkspace::moveToTrash(item));
    EXPECT_FALSE(QFileInfo::exists(item));
    EXPECT_EQ(TestFiles::markerOf(dataHome + "/Trash/files/P.app"), "p");
    struct stat status;
    ASSERT_EQ(stat(TestFiles::local(dataHome + "/Trash").constData(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
}
}  // namespace
