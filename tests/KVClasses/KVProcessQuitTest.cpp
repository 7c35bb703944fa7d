// Quitting real child processes, timing them, describing them, and sending
// them events.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <QDateTime>
#include <QRegularExpression>
#include <csignal>

#include "KVProcess.h"
#include "LogCapture.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

namespace {

class KVProcessQuitTest : public testing::Test {
protected:
    void SetUp() override { folder = TestEnvironment::makeTempDir("quit"); }
    void TearDown() override {
        for (pid_t pid : children) TestBundle::stop(pid);
    }

    // A running copy of the child program in Name.app; extra arguments go to
    // the program (--ignore-term).
    KVProcessRef launch(const QString &name, const QStringList &arguments = {},
                        QVariantMap info = {}) {
        const QString bundle = TestBundle::make(folder, name, info);
        const pid_t pid = TestBundle::start(TestBundle::executableOf(bundle), arguments);
        EXPECT_GT(pid, 0);
        children << pid;
        KVProcessRef process = KVProcess::processWithPID(pid);
        if (process) process->name();  // fetched now, as a record in use would have it
        return process;
    }
    // Whether the (zombie) child has ended: reaped without waiting.
    static bool hasExited(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == pid; }

    QString folder;
    QList<pid_t> children;
};

QString withoutTimes(const QString &line) {
    static const QRegularExpression numbers(QStringLiteral("\\d+\\.\\d{3}s \\(\\d+ attempts\\)"));
    return QString(line).replace(numbers, QStringLiteral("Ts (N attempts)"));
}

TEST_F(KVProcessQuitTest, ProcessThatHonoursTerminateEndsInTheFirstPhase) {
    const KVProcessRef process = launch("Polite");
    LogCapture capture;
    EXPECT_TRUE(process->quitRunningApplicationWithTimeout(2.0f));
    ASSERT_EQ(capture.messages().size(), 1);
    EXPECT_EQ(withoutTimes(capture.messages().first()),
              "quit Polite: terminated after Ts (N attempts)");
    EXPECT_FALSE(process->isStillRunning());
}

TEST_F(KVProcessQuitTest, ProcessThatIgnoresTerminateIsForcedAfterTheTimeout) {
    const KVProcessRef process = launch("Stubborn", {"--ignore-term"});
    LogCapture capture;
    EXPECT_TRUE(process->quitRunningApplicationWithTimeout(0.2f));
    ASSERT_EQ(capture.messages().size(), 1);
    EXPECT_EQ(withoutTimes(capture.messages().first()),
              "force-quit Stubborn: terminated after Ts (N attempts)");
    int status = 0;
    ASSERT_EQ(waitpid(children.takeLast(), &status, 0) > 0, true);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_F(KVProcessQuitTest, TimeoutOfZeroFailsAtOnceAndLeavesTheProcessRunning) {
    const KVProcessRef process = launch("Untouched");
    LogCapture capture;
    EXPECT_FALSE(process->quitRunningApplicationWithTimeout(0.0f));
    EXPECT_EQ(capture.messages(), QStringList{"quitting Untouched failed"});
    EXPECT_TRUE(process->isStillRunning());
}

TEST_F(KVProcessQuitTest, RecordOfAnEndedProcessHasNoPidAndTheEventFallbackFails) {
    const KVProcessRef process = launch("Gone");
    TestBundle::stop(children.takeLast());
    LogCapture capture;
    EXPECT_FALSE(process->quitRunningApplicationWithTimeout(1.0f));
    process->quit();
    EXPECT_EQ(capture.messages(),
              (QStringList{"cannot quit Gone: no pid", "cannot quit Gone: no pid",
                           "quitting Gone failed (-600; could not send event)"}));
}

TEST_F(KVProcessQuitTest, QuitEndsAPoliteProcessWithoutTheFallback) {
    const KVProcessRef process = launch("Quits");
    LogCapture capture;
    process->quit();
    EXPECT_EQ(capture.messages().size(), 1);
    EXPECT_FALSE(process->isStillRunning());
}

TEST_F(KVProcessQuitTest, ForceQuitKillsARunningProcessAndIgnoresAnEndedOne) {
    const KVProcessRef process = launch("Killed", {"--ignore-term"});
    process->forceQuit();
    int status = 0;
    ASSERT_GT(waitpid(children.takeLast(), &status, 0), 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    process->forceQuit();  // pid 0 now: nothing is run
}

TEST_F(KVProcessQuitTest, EventsToAProcessWithoutReceiverLogTheirErrorCode) {
    const KVProcessRef process = launch("Deaf");
    LogCapture capture;
    process->sendAppleEventClass(0x54455354, 0x45636866);
    process->sendAppleEventClass(0x54455354, 0x45636866, 0.5f);
    process->sendAppleEventClass(0x54455354, 0x45636866, QStringLiteral("text"));
    EXPECT_EQ(capture.messages(), (QStringList{"*** event error: -600", "*** event error: -600"}));
}

class KVProcessTimingTest : public KVProcessQuitTest {};

TEST_F(KVProcessTimingTest, LaunchDateIsWhenTheProcessStarted) {
    const QDateTime before = QDateTime::currentDateTime().addSecs(-2);
    const KVProcessRef process = launch("Timed");
    const QDateTime started = process->launchDate();
    EXPECT_GE(started, before);
    EXPECT_LE(started, QDateTime::currentDateTime().addSecs(1));
    EXPECT_EQ(process->launchDate(), started);  // computed once
    EXPECT_GE(process->secondsRunning(), 0.0f);
    EXPECT_LT(process->secondsRunning(), 5.0f);
}

TEST_F(KVProcessTimingTest, EndedProcessGetsTheTimeOfTheCallAndALogLine) {
    const KVProcessRef process = launch("Late");
    TestBundle::stop(children.takeLast());
    LogCapture capture;
    const QDateTime date = process->launchDate();
    EXPECT_LE(qAbs(date.msecsTo(QDateTime::currentDateTime())), 2000);
    EXPECT_EQ(capture.messages(), QStringList{"*** Cannot get launch date for Late"});
    EXPECT_LT(process->secondsRunning(), 2.0f);
    EXPECT_EQ(process->cpuTime(), 0.0);
}

TEST_F(KVProcessTimingTest, ProcessorTimeGrowsWithWorkAndIsZeroForNoProcess) {
    const double before = proc_cpu_time(getpid());
    volatile double sink = 0;
    const QDateTime until = QDateTime::currentDateTime().addMSecs(300);
    while (QDateTime::currentDateTime() < until) sink = sink + 1.0;
    EXPECT_GT(proc_cpu_time(getpid()), before);
    EXPECT_EQ(proc_cpu_time(0), 0.0);
    EXPECT_EQ(proc_cpu_time(999999999), 0.0);
    EXPECT_EQ(proc_start_time(999999999), 0.0);
}

TEST_F(KVProcessTimingTest, DescriptionsNameTheRecord) {
    const KVProcessRef process = launch("Described", {},
                                        {{"CFBundleSignature", "DsCr"},
                                         {"CFBundleShortVersionString", "1.2"},
                                         {"CFBundleIdentifier", "org.x.d"}});
    EXPECT_EQ(process->description(), "Process \"Described\" (DsCr) 1.2");
    EXPECT_EQ(process->detailedDescription(), "Described V1.2 (DsCr/org.x.d)");
    const KVProcessRef anonymous = launch("Anon");
    EXPECT_EQ(anonymous->detailedDescription(), "Anon V1.0 (?\?\?\?/)");
}

TEST_F(KVProcessTimingTest, DiagnosticsListSortsForegroundAndBackgroundApart) {
    launch("zeta fore");
    launch("Alpha fore");
    launch("Agent", {}, {{"LSUIElement", true}});
    const QString report = KVProcess::processListForDiagnosticsReport();
    const qsizetype foreground = report.indexOf("Foreground processes:\n");
    const qsizetype background = report.indexOf("\n\nBackground processes:\n");
    ASSERT_EQ(foreground, 0);
    ASSERT_GT(background, 0);
    EXPECT_TRUE(report.endsWith('\n'));
    const qsizetype alpha = report.indexOf("Alpha fore V1.0");
    const qsizetype zeta = report.indexOf("zeta fore V1.0");
    const qsizetype agent = report.indexOf("Agent V1.0");
    EXPECT_TRUE(alpha > 0 && alpha < zeta && zeta < background) << qPrintable(report);
    EXPECT_GT(agent, background);
}

}  // namespace
