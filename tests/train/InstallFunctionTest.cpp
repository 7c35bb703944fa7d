// InstallApplication on real files and the private home's real trash, called
// directly and through the tool "train" run as a real program.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>

#include <QDir>
#include <QScopeGuard>
#include <QThread>
#include <thread>

#include "InstallFunction.h"
#include "LogCapture.h"
#include "TestFiles.h"
#include "ToolRun.h"

namespace {
using TestFiles::local;
using TestFiles::makeFile;
using TestFiles::makeProduct;
using TestFiles::markerOf;
using TestFiles::snapshot;

QStringList entries(const QString &folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

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
                    makeFile(wrapper + "/.hidden", "h", 0600));
        QDir().mkpath(applications);
    }

    QStringList trashed() const { return entries(trash + "/files"); }
    QByteArray trashedMarker() const { return markerOf(trash + "/files/" + name); }
    // Taken of the wrapper before the install, which changes access times.
    static QStringList auxiliaryItems(const QString &folder) {
        QStringList lines;
        for (const QString item : {"Read Me.txt", "bin", ".hidden"})
            lines << item << snapshot(folder + "/" + item);
        return lines;
    }
    ToolRun train(const QStringList &arguments) const {
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
    TestFiles::ImmutableItems locks;
};

// Links, modes, nanosecond times and extended attributes survive.
TEST_F(InstallTest, TrainInstallsAnIdenticalCopyAndTrashesTheOldOne) {
    const QString rich = TestFiles::makeRichBundle(folder + "/Volume", "Rich");
    ASSERT_FALSE(rich.isNull());
    const QString target = applications + "/Rich.app";
    makeProduct(target, "old");
    const QStringList before = snapshot(rich);
    const ToolRun result = train({rich, target});
    EXPECT_TRUE(result.status == 0 && result.errors.isEmpty()) << qPrintable(result.errors);
    EXPECT_EQ(snapshot(target), before);
    EXPECT_EQ(trashed(), QStringList{"Rich.app"});
    EXPECT_EQ(markerOf(trash + "/files/Rich.app"), "old");
}

TEST_F(InstallTest, TrainRejectsWrongArgumentsWithUsageAndTouchesNothing) {
    const QStringList before = snapshot(folder);
    // clang-format off
    const QList<QStringList> vectors = {{}, {source}, {source, destination, wrapper, folder + "/extra"},
        {"Volume/" + name, destination}, {source, "Applications/" + name}, {"", destination},
        {source, destination, ""}, {source + "\n" + destination, destination}};
    // clang-format on
    for (const QStringList &arguments : vectors) {
        const ToolRun result = train(arguments);
        EXPECT_EQ(result.status, 64) << qPrintable(arguments.join(" | "));
        EXPECT_EQ(result.errors, "usage: train source-path destination-path [wrapper-path]\n");
    }
    // A name that is no text would be installed under another name than authorised.
    const QString invalid =
        QString("exec \"$0\" \"$(printf '%1/Volume/\\377.app')\" \"$1\"").arg(folder);
    EXPECT_EQ(QProcess::execute("/bin/sh", {"-c", invalid, KV_TRAIN_TOOL, destination}), 64);
    EXPECT_EQ(snapshot(folder), before);
}

TEST_F(InstallTest, TrainCopiesANewWrapperWholeAndReplacesItsProduct) {
    const QStringList auxiliary = auxiliaryItems(wrapper), product = snapshot(source);
    const ToolRun result = train({source, wrappedDestination, wrapper});
    EXPECT_TRUE(result.status == 0 && result.errors.isEmpty()) << qPrintable(result.errors);
    EXPECT_EQ(auxiliaryItems(installed), auxiliary);
    EXPECT_EQ(snapshot(wrappedDestination), product);
    EXPECT_EQ(trashed(), QStringList{name});
    EXPECT_EQ(trashedMarker(), "wrapper's");
}

// Installed auxiliary items are deleted, not trashed; others stay.
TEST_F(InstallTest, AnInstalledWrappersItemsAreDeletedAndCopiedAnew) {
    makeFile(installed + "/Read Me.txt", "old read me", 0644);
    makeFile(installed + "/bin/stale-tool", "old", 0755);
    makeFile(installed + "/Not In Wrapper", "kept", 0644);
    makeProduct(wrappedDestination, "installed");
    const QStringList auxiliary = auxiliaryItems(wrapper), product = snapshot(source);
    LogCapture log;
    EXPECT_EQ(InstallApplication(source, wrappedDestination, wrapper), 0);
    EXPECT_EQ(auxiliaryItems(installed), auxiliary);
    EXPECT_TRUE(QFileInfo::exists(installed + "/Not In Wrapper"));
    EXPECT_EQ(snapshot(wrappedDestination), product);
    EXPECT_EQ(trashed(), QStringList{name});
    EXPECT_EQ(trashedMarker(), "wrapper's");
    EXPECT_TRUE(log.messages().isEmpty()) << qPrintable(log.text());
}

// A failed copy, or an item neither trashed nor deleted, ends the run; the old copy stays.
TEST_F(InstallTest, ACopyThatFailsEndsTheRunWithItsLogLines) {
    makeProduct(destination, "old");
    const QString missing = folder + "/Missing/Product Folder";
    {
        LogCapture log;
        EXPECT_EQ(InstallApplication(folder + "/Volume/Missing.app", destination, QString()), 2);
        EXPECT_EQ(InstallApplication(source, missing + "/" + name, wrapper), 2);
        EXPECT_EQ(log.messages(), (QStringList{"ERROR -- Could not copy myself to " + destination,
                                               "ERROR -- Could not copy wrapper to " + missing}));
        EXPECT_FALSE(QFileInfo::exists(missing));
        EXPECT_EQ(markerOf(destination), "old");
        EXPECT_EQ(trashed(), QStringList());
    }
    const QString target = installed + "/Read Me.txt";
    makeFile(target, "old read me", 0644);
    makeProduct(wrappedDestination, "installed");
    makeProduct(destination, "locked");
    if (!locks.lock(target) || !locks.lock(destination)) GTEST_SKIP() << "chattr +i needs root";
    LogCapture log;
    EXPECT_EQ(InstallApplication(source, wrappedDestination, wrapper), 2);
    EXPECT_EQ(InstallApplication(source, destination, QString()), 1);
    EXPECT_EQ(log.messages(), (QStringList{"ERROR -- Could not delete " + target,
                                           "ERROR -- Could not copy auxiliary item to " + target,
                                           "ERROR -- Could not trash '" + destination + "'",
                                           "ERROR -- Could not trash existing " + destination}));
    EXPECT_NE(markerOf(wrappedDestination), "new");
    EXPECT_EQ(markerOf(destination), "locked");
    EXPECT_EQ(entries(applications), (QStringList{"Product Folder", name}));
}

// The same item under another name (links, a bind mount), or one inside the other.
TEST_F(InstallTest, SourceAndDestinationThatOverlapAreRefused) {
    makeProduct(destination, "old");
    makeProduct(destination + "/Contents/Inner.app", "inner");
    TestFiles::makeLink(folder + "/alias.app", source);
    TestFiles::makeLink(applications + "/Alias.app", source);
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
    for (const auto &[from, to] : pairs) {
        LogCapture log;
        EXPECT_EQ(InstallApplication(from, to, QString()), 2) << qPrintable(from + " " + to);
        EXPECT_EQ(log.messages(),
                  QStringList{"ERROR -- Will not install " + from + " over or into itself: " + to});
    }
    EXPECT_EQ(snapshot(folder), before);
    EXPECT_EQ(trashed(), QStringList());
}

// A link installs a copy of its bundle; a loop, a file or no Info.plist is no bundle.
TEST_F(InstallTest, TheSourceIsTheBundleItNames) {
    TestFiles::makeLink(folder + "/link.app", source);
    TestFiles::makeLink(folder + "/loop.app", folder + "/loop.app");
    makeFile(folder + "/plain.app", "plain", 0644);
    QDir().mkpath(folder + "/Empty.app/Contents");
    makeProduct(destination, "old");
    for (const QString from : {"/loop.app", "/plain.app", "/Empty.app"}) {
        LogCapture log;
        EXPECT_EQ(InstallApplication(folder + from, destination, QString()), 2);
        EXPECT_EQ(log.messages(), QStringList{"ERROR -- Could not copy myself to " + destination});
    }
    EXPECT_EQ(markerOf(destination), "old");
    const QStringList bundle = snapshot(source);
    EXPECT_EQ(InstallApplication(folder + "/link.app", destination, QString()), 0);
    EXPECT_FALSE(QFileInfo(destination).isSymLink());
    EXPECT_EQ(snapshot(destination), bundle);
}

// A name near the limit of 255 bytes still leaves room for its staging name.
TEST_F(InstallTest, ALongNameIsInstalled) {
    const QString longName = applications + "/" + QString(246, 'L') + ".app";
    EXPECT_EQ(InstallApplication(source, longName, QString()), 0);
    EXPECT_EQ(markerOf(longName), "new");
}

// Killed, cancelled or out of disk, the copy leaves the old one; the next run cleans up.
TEST_F(InstallTest, AnInterruptedCopyLeavesTheOldCopyInPlace) {
    // Enough items that a copy still runs when stopped.
    for (int i = 0; i < 3000; ++i)
        makeFile(source + QString("/Contents/Resources/%1").arg(i), "x", 0644);
    makeProduct(destination, "old");
    const QString staging = applications + "/." + name + ".installing";
    const auto copying = [&](const auto &stillRunning) {
        while (!QFileInfo::exists(staging + "/Contents/Resources") && stillRunning())
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
    EXPECT_EQ(train({source, destination}).status, 0);
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

    const QString small = folder + "/Small";
    QDir().mkpath(small);
    if (mount("kvtest", local(small).constData(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "mounting needs root";
    const auto unmount = qScopeGuard([&] { umount2(local(small).constData(), MNT_DETACH); });
    const QString large = TestFiles::makeRichBundle(folder + "/Volume", "Large");  // 3 MB
    ASSERT_FALSE(large.isNull());
    makeProduct(small + "/Large.app", "old");
    LogCapture log;
    EXPECT_EQ(InstallApplication(large, small + "/Large.app", QString()), 2);
    EXPECT_EQ(log.messages(),
              QStringList{"ERROR -- Could not copy myself to " + small + "/Large.app"});
    EXPECT_EQ(markerOf(small + "/Large.app"), "old");
    EXPECT_EQ(entries(small), QStringList{"Large.app"});
}

// One installation into a folder at a time: a second waits, and says so.
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
    EXPECT_TRUE(QString::fromUtf8(tool.readAllStandardError())
                    .contains("Waited for another installation into " + applications + " to end"));
    EXPECT_EQ(markerOf(destination), "new");
}

}  // namespace
