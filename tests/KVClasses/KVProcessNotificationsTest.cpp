#include <QRegularExpression>

#include "KVClassesTest.h"
#include "KVNotificationCenter.h"

namespace {

constexpr int kWaitMs = 20000;

class KVProcessNotificationsTest : public testing::Test {
protected:
    void SetUp() override {
        m_token = KVNotificationCenter::defaultCenter().addObserver(
            KVProcessChangeNotification, KVProcess::classObject(),
            [this](const KVNotification &notification) {
                changes << notification.userInfo.value("change").toString() + " " +
                               QString::number(KVWindowServer::frontProcessID());
            });
    }
    void TearDown() override {
        KVNotificationCenter::defaultCenter().removeObserver(m_token);
        for (std::unique_ptr<QProcess> *program : {&first, &second}) XSession::stop(*program);
    }
    // Whether the change (any, when empty) arrives while the process is in front.
    bool arrives(const QString &change, pid_t front = 0) {
        const QRegularExpression wanted(
            (change.isEmpty() ? QString("^\\w+ ") : "^" + change + " ") +
            (front ? QString::number(front) : "\\d+") + "$");
        return QTest::qWaitFor([&] { return changes.indexOf(wanted) >= 0; }, kWaitMs);
    }
    static bool leavesTheCache(const ProcessSerialNumber &psn) {
        return QTest::qWaitFor(
            [&] { return KVProcess::indexOfCachedProcessWithSerialNumber(psn) == NSNotFound; },
            kWaitMs);
    }

    QStringList changes;  // each with the front process of the moment it arrived
    std::unique_ptr<QProcess> first, second;
    int m_token = 0;
};

TEST_F(KVProcessNotificationsTest, LaunchFrontSwitchAndQuitArriveAndAreCountedOnce) {
    ASSERT_EQ(XSession::start(), "");
    KVProcess::installNotifications();
    first = frontWindow({"--title", "First"});
    EXPECT_TRUE(arrives("started"));
    // A launch and its window's activation in one turn post only the first.
    second = frontWindow({"--title", "Second"});
    EXPECT_TRUE(arrives("", pidOf(second)));
    changes.clear();
    ASSERT_TRUE(KVWindowServer::bringProcessToFront(pidOf(first), false));
    EXPECT_TRUE(arrives("front", pidOf(first)));
    const KVProcessRef quitter = KVProcess::processWithPID(pidOf(first));
    ASSERT_TRUE(quitter);
    const int count = KVProcess::applicationLaunchEndCount();
    const pid_t quitterPID = pidOf(first);
    XSession::stop(first);
    EXPECT_TRUE(arrives("ended") && leavesTheCache(quitter->serialNumber()));
    // Its exit was read before "ended" arrived: no second end is counted.
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return !KVWindowServer::bringProcessToFront(quitterPID, true); }, kWaitMs));
    QCoreApplication::processEvents();
    EXPECT_EQ(KVProcess::applicationLaunchEndCount(), count + 1);
}

// Starting a program waits without running the event loop: both windows are
// there before the watcher reads a single event.
TEST_F(KVProcessNotificationsTest, TwoLaunchesInOneTurnCountTwoAndPostOnce) {
    ASSERT_EQ(XSession::start(), "");
    KVProcess::installNotifications();
    const int count = KVProcess::applicationLaunchEndCount();
    QString error;
    first = XSession::startWindowProgram(KV_TEST_WINDOW, {"--title", "One"}, &error);
    second = XSession::startWindowProgram(KV_TEST_WINDOW, {"--title", "Two"}, &error);
    ASSERT_TRUE(first && second) << qPrintable(error);
    EXPECT_TRUE(arrives("started"));
    EXPECT_EQ(KVProcess::applicationLaunchEndCount(), count + 2);
    EXPECT_EQ(changes.filter(QRegularExpression("^started ")).size(), 1);
}

// Looked up on another thread, without a display: its pidfd tells the main thread.
TEST_F(KVProcessNotificationsTest, AnEndedProcessLeavesTheCacheWithoutADisplay) {
    const ScopedEnv noDisplay("DISPLAY", std::nullopt);
    KVProcess::installNotifications();
    const pid_t child = TestBundle::start(KV_TEST_CHILD);
    ASSERT_GT(child, 0);
    KVProcessRef record;
    std::thread([&] { record = KVProcess::processWithPID(child); }).join();
    ASSERT_TRUE(record);
    const int count = KVProcess::applicationLaunchEndCount();
    TestBundle::stop(child);
    EXPECT_TRUE(arrives("ended") && leavesTheCache(record->serialNumber()));
    EXPECT_EQ(KVProcess::applicationLaunchEndCount(), count + 1);
    EXPECT_FALSE(KVUtilities::clipboardPublisherProcess());
}

// A program without windows owns the clipboard while a window is in front.
std::unique_ptr<QProcess> copyToClipboard(const QByteArray &text) {
    auto owner = std::make_unique<QProcess>();
    owner->start("xclip", {"-quiet", "-selection", "clipboard"});
    EXPECT_TRUE(owner->waitForStarted()) << "xclip is missing; scripts/install-deps installs it";
    owner->write(text);
    owner->closeWriteChannel();
    return owner;
}

TEST_F(KVProcessNotificationsTest, TheFrontProcessWhenTheClipboardChangesPublishedIt) {
    ASSERT_EQ(XSession::start(), "");
    first = frontWindow({"--title", "Writer"});
    const KVProcessRef writer = KVProcess::processWithPID(pidOf(first));
    const auto publishedBy = [](const KVProcessRef &process) {
        return QTest::qWaitFor(
            [&] {
                const KVProcessRef publisher = KVUtilities::clipboardPublisherProcess();
                return publisher && publisher->isEqual(process);
            },
            kWaitMs);
    };
    {
        const LogCapture log;
        EXPECT_FALSE(KVUtilities::clipboardPublisherProcess());
        EXPECT_FALSE(KVUtilities::clipboardPublisherProcess());
        EXPECT_EQ(log.messages(), QStringList{"**Utilities initialized"});
    }
    std::unique_ptr<QProcess> copy = copyToClipboard("first");
    EXPECT_TRUE(publishedBy(writer));
    second = frontWindow({"--title", "Reader"});
    EXPECT_TRUE(publishedBy(writer));
    std::unique_ptr<QProcess> again = copyToClipboard("second");
    EXPECT_TRUE(publishedBy(KVProcess::processWithPID(pidOf(second))));
    XSession::stop(copy);
    XSession::stop(again);
}

}  // namespace
