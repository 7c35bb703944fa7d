#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>

#include "TestEnvironment.h"
#include "TestFiles.h"

namespace {
// The tool as the installer starts it: a real program, with the test's
// private home in its environment.
class TrainToolTest : public testing::Test {
protected:
    struct Run {
        int status = -1;
        QString errors;
    };

    void SetUp() override {
        QDir(trash).removeRecursively();
        ASSERT_FALSE(TestFiles::makeProduct(source, "new").isNull());
        QDir().mkpath(applications);
    }

    Run run(const QStringList &arguments,
            const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment()) {
        QProcess process;
        process.setProcessEnvironment(environment);
        // A relative path, were it taken, would land in the test's folder.
        process.setWorkingDirectory(folder);
        process.start(KV_TRAIN_TOOL, arguments);
        Run result;
        if (process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit)
            result.status = process.exitCode();
        result.errors = QString::fromUtf8(process.readAllStandardError());
        return result;
    }

    const QString trash = qEnvironmentVariable("XDG_DATA_HOME") + "/Trash";
    const QString folder = TestEnvironment::makeTempDir("train");
    const QString source = folder + "/Volume/Prodüct 2.app";
    const QString applications = folder + "/Applications";
    const QString destination = applications + "/Prodüct 2.app";
    TestFiles::ImmutableItems locks;
};

TEST_F(TrainToolTest, WrongArgumentVectorsExitWithUsageAndTouchNothing) {
    const QStringList before = TestFiles::snapshot(folder);
    const QList<QStringList> vectors = {
        {},
        {source},
        {source, destination, folder + "/Volume", folder + "/extra"},
        {"Volume/Prodüct 2.app", destination},
        {source, "Applications/Prodüct 2.app"},
        {"", destination},
        {source, destination, ""},
    };
    for (const QStringList &arguments : vectors) {
        SCOPED_TRACE(arguments.join(" | ").toStdString());
        const Run result = run(arguments);
        EXPECT_EQ(result.status, 64);
        EXPECT_TRUE(result.errors.startsWith("usage: train ")) << qPrintable(result.errors);
        EXPECT_EQ(result.errors.count('\n'), 1) << qPrintable(result.errors);
    }
    EXPECT_EQ(TestFiles::snapshot(folder), before);
}

TEST_F(TrainToolTest, InstallsTheProductGivenSourceAndDestination) {
    const QStringList product = TestFiles::snapshot(source);
    const Run result = run({source, destination});
    EXPECT_EQ(result.status, 0) << qPrintable(result.errors);
    EXPECT_EQ(TestFiles::snapshot(destination), product);
}

TEST_F(TrainToolTest, InstallsTheWrapperGivenAsThirdPath) {
    const QString wrapper = folder + "/Volume/Wrapper";
    TestFiles::makeFile(wrapper + "/Read Me", "r", 0644);
    const QString wrapped = applications + "/Wrapper/Prodüct 2.app";
    const QStringList product = TestFiles::snapshot(source);
    const QStringList readMe = TestFiles::snapshot(wrapper + "/Read Me");

    const Run result = run({source, wrapped, wrapper});
    EXPECT_EQ(result.status, 0) << qPrintable(result.errors);
    EXPECT_EQ(TestFiles::snapshot(wrapped), product);
    EXPECT_EQ(TestFiles::snapshot(applications + "/Wrapper/Read Me"), readMe);
}

TEST_F(TrainToolTest, ExitsWith1WhenTheExistingCopyCannotBeTrashed) {
    TestFiles::makeProduct(destination, "old");
    if (!locks.lock(destination)) GTEST_SKIP() << "chattr +i needs root";

    const Run result = run({source, destination});
    EXPECT_EQ(result.status, 1);
    const qsizetype first = result.errors.indexOf("ERROR -- Could not trash '" + destination + "'");
    EXPECT_GE(first, 0) << qPrintable(result.errors);
    EXPECT_GT(result.errors.indexOf("ERROR -- Could not trash existing " + destination), first);
    EXPECT_EQ(TestFiles::markerOf(destination), "old");
}

}  // namespace
