// Opening a real bundle as the desktop would, the process read back from /proc.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include "KVWorkspace.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

// Fields 4 (parent) and 6 (session) of /proc/<pid>/stat.
QList<QByteArray> parentAndSession(pid_t pid) {
    QFile stat(QString("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) return {};
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    return {fields.value(1), fields.value(3)};
}

// Started in its own session from home, with only the standard streams open, all on
// /dev/null, whatever the opener has open; the opener's child, reaped when it ends.
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
    QStringList descriptors;
    (void)QTest::qWaitFor(
        [&] {
            descriptors = QDir(proc + "/fd")
                              .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
            return descriptors == QStringList{"0", "1", "2"};
        },
        5000);
    EXPECT_EQ(descriptors, (QStringList{"0", "1", "2"}));
    for (const QString &fd : descriptors)
        EXPECT_EQ(QFile::symLinkTarget(proc + "/fd/" + fd), "/dev/null") << qPrintable(fd);
    EXPECT_EQ(QFile::symLinkTarget(proc + "/cwd"), QFileInfo(QDir::homePath()).canonicalFilePath());
    EXPECT_EQ(parentAndSession(pid),
              (QList<QByteArray>{QByteArray::number(getpid()), QByteArray::number(pid)}));

    kill(pid, SIGKILL);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !QFileInfo::exists(proc); }, 10000));
}

}  // namespace
