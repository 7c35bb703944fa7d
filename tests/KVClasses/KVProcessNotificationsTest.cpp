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
    // Whether the change arrives while the process (any, when 0) is in front.
    bool arrives(const QString &change, pid_t front = 0) {
        const QRegularExpression wanted("^" + change + " " +
                                        (front ? QString::number(front) : "\\d+") + "$");
        return QTest::qWaitFor([&] { return changes.indexOf(wanted) >= 0; }, kWaitMs);
    }

    QStringList changes;  // each with the front process of the moment it arrived
    std::unique_ptr<QProcess> first, second;
    int m_token = 0;
};

// Starting a program waits without running the event loop: both windows are
// there before the watcher reads a single event, so one launch is posted.
TEST_F(KVProcessNotificationsTest, TwoLaunchesInOneTurnCountTwoAndPostOnceThenFrontAndQuitArrive) {
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
    const pid_t quitter = pidOf(first);
    KVWindowServer::bringProcessToFront(pidOf(second), false);
    ASSERT_TRUE(QTest::qWaitFor([&] { return KVWindowServer::frontProcessID() == pidOf(second); },
                                kWaitMs));
    ASSERT_TRUE(KVWindowServer::bringProcessToFront(quitter, false));
    EXPECT_TRUE(arrives("front", quitter));
    const KVProcessRef record = KVProcess::processWithPID(quitter);
    ASSERT_TRUE(record);
    XSession::stop(first);
    EXPECT_TRUE(arrives("ended") && QTest::qWaitFor(
                                        [&] {
                                            return KVProcess::indexOfCachedProcessWithSerialNumber(
                                                       record->serialNumber()) == NSNotFound;
                                        },
                                        kWaitMs));
    // Its exit was read before "ended" arrived: no second end is counted.
    EXPECT_TRUE(QTest::qWaitFor([&] { return !KVWindowServer::bringProcessToFront(quitter, true); },
                                kWaitMs));
    QCoreApplication::processEvents();
    EXPECT_EQ(KVProcess::applicationLaunchEndCount(), count + 3);
}

}  // namespace
