#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>

#include "InstallFunction.h"
#include "LogCapture.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

namespace {
// A product on a "volume" folder installed into an "Applications" folder, all
// below the test's private root; the trash is the private home's, emptied
// before each test.
class InstallApplicationTest : public testing::Test {
protected:
    void SetUp() override {
        QDir(trash).removeRecursively();
        ASSERT_FALSE(TestFiles::makeProduct(source, "new").isNull());
        QDir().mkpath(applications);
    }

    QStringList trashed() const {
        return QDir(trash + "/files").entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }

    const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash";
    const QString folder = TestEnvironment::makeTempDir("install");
    const QString volume = folder + "/Volume";
    const QString source = volume + "/Product.app";
    const QString applications = folder + "/Applications";
    const QString destination = applications + "/Product.app";
    TestFiles::ImmutableItems locks;
};

TEST_F(InstallApplicationTest, InstallsAnIdenticalCopyWhenNothingIsThere) {
    const QString rich = TestFiles::makeRichBundle(volume, "Rich");
    ASSERT_FALSE(rich.isNull());
    const QStringList before = TestFiles::snapshot(rich);
    LogCapture log;

    EXPECT_EQ(InstallApplication(rich, applications + "/Rich.app", QString()), 0);
    EXPECT_EQ(TestFiles::snapshot(applications + "/Rich.app"), before);
    EXPECT_TRUE(log.messages().isEmpty()) << qPrintable(log.text());
    EXPECT_TRUE(trashed().isEmpty());
}

TEST_F(InstallApplicationTest, MovesAnExistingCopyToTheTrashAndCopiesTheProduct) {
    TestFiles::makeProduct(destination, "old");
    const QStringList product = TestFiles::snapshot(source);
    LogCapture log;

    EXPECT_EQ(InstallApplication(source, destination, QString()), 0);
    EXPECT_EQ(TestFiles::snapshot(destination), product);
    EXPECT_EQ(trashed(), QStringList{"Product.app"});
    EXPECT_EQ(TestFiles::markerOf(trash + "/files/Product.app"), "old");
    EXPECT_TRUE(log.messages().isEmpty()) << qPrintable(log.text());
}

TEST_F(InstallApplicationTest, AnExistingCopyThatCannotBeTrashedIsLoggedTwiceAndNothingIsCopied) {
    TestFiles::makeProduct(destination, "old");
    if (!locks.lock(destination)) GTEST_SKIP() << "chattr +i needs root";
    LogCapture log;

    EXPECT_EQ(InstallApplication(source, destination, QString()), 1);
    EXPECT_EQ(log.messages(), (QStringList{"ERROR -- Could not trash '" + destination + "'",
                                           "ERROR -- Could not trash existing " + destination}));
    EXPECT_EQ(TestFiles::markerOf(destination), "old");
    EXPECT_TRUE(trashed().isEmpty());
}

TEST_F(InstallApplicationTest, AFailedCopyLeavesTheOldCopyInTheTrashAndNothingInPlace) {
    TestFiles::makeProduct(destination, "old");
    LogCapture log;

    EXPECT_EQ(InstallApplication(volume + "/Missing.app", destination, QString()), 2);
    EXPECT_EQ(log.messages(), QStringList{"ERROR -- Could not copy myself to " + destination});
    EXPECT_FALSE(QFileInfo::exists(destination));
    EXPECT_EQ(TestFiles::markerOf(trash + "/files/Product.app"), "old");
}

// The product comes inside a wrapper folder with auxiliary items and a
// product of its own (marked "wrapper's"); the source beside it is newer.
class WrapperInstallTest : public InstallApplicationTest {
protected:
    void SetUp() override {
        InstallApplicationTest::SetUp();
        ASSERT_FALSE(TestFiles::makeProduct(wrapper + "/Product.app", "wrapper's").isNull());
        ASSERT_TRUE(TestFiles::makeFile(wrapper + "/Read Me.txt", "new read me", 0644));
        ASSERT_TRUE(TestFiles::makeFile(wrapper + "/bin/tool", "#!/bin/sh\n", 0755));
        ASSERT_TRUE(TestFiles::makeFile(wrapper + "/.hidden", "h", 0600));
    }

    // The auxiliary items below the folder. Taken of the wrapper before the
    // install, as copying changes the originals' access times.
    static QStringList auxiliaryItems(const QString &folder) {
        QStringList lines;
        for (const QString name : {"Read Me.txt", "bin", ".hidden"})
            lines << name << TestFiles::snapshot(folder + "/" + name);
        return lines;
    }

    const QString wrapper = volume + "/Product Folder";
    const QString installed = applications + "/Product Folder";
    const QString wrappedDestination = installed + "/Product.app";
};

TEST_F(WrapperInstallTest, ANewWrapperIsCopiedWholeAndItsProductReplacedFromTheSource) {
    const QStringList auxiliary = auxiliaryItems(wrapper);
    const QStringList product = TestFiles::snapshot(source);
    LogCapture log;

    EXPECT_EQ(InstallApplication(source, wrappedDestination, wrapper), 0);
    EXPECT_EQ(auxiliaryItems(installed), auxiliary);
    EXPECT_EQ(TestFiles::snapshot(wrappedDestination), product);
    EXPECT_EQ(trashed(), QStringList{"Product.app"});
    EXPECT_EQ(TestFiles::markerOf(trash + "/files/Product.app"), "wrapper's");
    EXPECT_TRUE(log.messages().isEmpty()) << qPrintable(log.text());
}

TEST_F(WrapperInstallTest, AnInstalledWrappersItemsAreDeletedAndCopiedAnew) {
    TestFiles::makeFile(installed + "/Read Me.txt", "old read me", 0644);
    TestFiles::makeFile(installed + "/bin/stale-tool", "old", 0755);
    TestFiles::makeFile(installed + "/Not In Wrapper", "kept", 0644);
    TestFiles::makeProduct(wrappedDestination, "installed");
    const QStringList auxiliary = auxiliaryItems(wrapper);
    const QStringList product = TestFiles::snapshot(source);
    LogCapture log;

    EXPECT_EQ(InstallApplication(source, wrappedDestination, wrapper), 0);
    EXPECT_EQ(auxiliaryItems(installed), auxiliary);
    EXPECT_TRUE(QFileInfo::exists(installed + "/Not In Wrapper"));
    EXPECT_EQ(TestFiles::snapshot(wrappedDestination), product);
    // The installed product was deleted with the auxiliary items; only the
    // wrapper's product, copied in its place, went to the trash.
    EXPECT_EQ(trashed(), QStringList{"Product.app"});
    EXPECT_EQ(TestFiles::markerOf(trash + "/files/Product.app"), "wrapper's");
    EXPECT_TRUE(log.messages().isEmpty()) << qPrintable(log.text());
}

TEST_F(WrapperInstallTest, AnAuxiliaryItemThatCannotBeDeletedIsLoggedAndItsCopyEndsTheRun) {
    const QString target = installed + "/Read Me.txt";
    TestFiles::makeFile(target, "old read me", 0644);
    TestFiles::makeProduct(wrappedDestination, "installed");
    if (!locks.lock(target)) GTEST_SKIP() << "chattr +i needs root";
    LogCapture log;

    EXPECT_EQ(InstallApplication(source, wrappedDestination, wrapper), 2);
    EXPECT_EQ(log.messages(), (QStringList{"ERROR -- Could not delete " + target,
                                           "ERROR -- Could not copy auxiliary item to " + target}));
    EXPECT_NE(TestFiles::markerOf(wrappedDestination), "new");
}

TEST_F(WrapperInstallTest, AWrapperThatCannotBeCopiedEndsTheRun) {
    const QString missing = folder + "/Missing";
    LogCapture log;

    EXPECT_EQ(InstallApplication(source, missing + "/Product Folder/Product.app", wrapper), 2);
    EXPECT_EQ(log.messages(),
              QStringList{"ERROR -- Could not copy wrapper to " + missing + "/Product Folder"});
    EXPECT_FALSE(QFileInfo::exists(missing));
}
}  // namespace
