// Events between real processes over a real session bus.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QProcess>
#include <QTest>

#include "KVAppleEvent.h"
#include "KVAppleEventManager.h"
#include "KVFourCharCode.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

using namespace KVAppleEvent;

namespace {
constexpr int kWait = 5000;  // ms a waiting send may take when all is well

OSType code(const char *text) { return KVFourCharCode::fromString(text); }

// A kvtest_event_receiver child, killed and reaped with the object.
class Receiver : public QProcess {
public:
    ~Receiver() override {
        kill();
        waitForFinished();
    }
    // Starts it; its first line ("ready" or "not receiving").
    QString start(const QStringList &arguments = {}, const QProcessEnvironment &environment =
                                                         QProcessEnvironment::systemEnvironment()) {
        setProcessEnvironment(environment);
        QProcess::start(KV_TEST_EVENT_RECEIVER, arguments);
        return nextLine();
    }
    QString nextLine() {
        for (int i = 0; i < 200 && !canReadLine(); ++i) waitForReadyRead(50);
        return canReadLine() ? QString::fromUtf8(readLine()).chopped(1) : QString();
    }
};

// A missing handler is reported only to a sender that waits, and a late
// event is still handled. The quit handler answers and ends the receiver,
// whose pid is then unknown.
TEST(KVAppleEventToReceiverTest, DeliversEventsAndAnswersWaitingSendersUntilItQuits) {
    Receiver receiver;
    ASSERT_EQ(receiver.start(), "ready");
    const pid_t pid = pid_t(receiver.processId());
    const auto sendTest = [&](const char *eventID, const QString &parameter, int timeout) {
        return send(pid, code("TEST"), code(eventID), parameter, timeout);
    };
    const QString text = QString::fromUtf8("Grüße  aus 東京 – 2.1 ");
    for (int timeout : {0, kWait}) {
        EXPECT_EQ(sendTest("Echo", text, timeout), noErr) << timeout;
        EXPECT_EQ(receiver.nextLine(), "received TEST Echo " + text);
    }
    EXPECT_EQ(sendTest("Nope", "", kWait), errAEEventNotHandled);
    EXPECT_EQ(sendTest("Slow", "1500", 300), errAETimeout);
    EXPECT_EQ(receiver.nextLine(), "received TEST Slow 1500");

    EXPECT_EQ(send(pid, code("aevt"), code("quit"), "", kWait), noErr);
    EXPECT_TRUE(receiver.waitForFinished(kWait) && receiver.exitCode() == 0);
    // The bus lets go of the name as soon as it notices the closed connection.
    EXPECT_TRUE(QTest::qWaitFor([&] { return sendTest("Echo", "", 0) == procNotFound; }, kWait));
}

// Refused before sending; a process receiving no events is unknown.
TEST(KVAppleEventAddressTest, BadCodesTimeOutsAndAddressesAreRefused) {
    EXPECT_EQ(send(getpid(), 0, code("Echo"), "", 0), paramErr);
    EXPECT_EQ(send(getpid(), code("TEST"), 0x41004142, "", 0), paramErr);
    EXPECT_EQ(send(getpid(), code("TEST"), code("Echo"), "", -1), paramErr);
    const pid_t child = TestBundle::start(KV_TEST_CHILD);
    ASSERT_GT(child, 0);
    for (const auto &[pid, timeout] : {std::pair{child, 0}, {child, kWait}, {0, kWait}, {-1, 0}})
        EXPECT_EQ(send(pid, code("TEST"), code("Echo"), "", timeout), procNotFound) << pid;
    TestBundle::stop(child);
}

// Without a bus sending fails with its own code; the receiving side says so once.
TEST(KVAppleEventNoBusTest, SendingFailsWithConnectionInvalidAndReceivingIsOffLoggedOnce) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SESSION_BUS_ADDRESS",
                       "unix:path=" + TestEnvironment::makeTempDir("nobus") + "/bus");
    Receiver receiver;
    const QStringList arguments{"--send", "1", "TEST", "Echo", "0",    "x",
                                "--send", "1", "TEST", "Echo", "1000", "x"};
    ASSERT_EQ(receiver.start(arguments, environment), "not receiving");
    for (int timeout : {0, 1000})
        EXPECT_EQ(receiver.nextLine(), QString("sent %1").arg(connectionInvalid)) << timeout;
    receiver.terminate();
    EXPECT_TRUE(receiver.waitForFinished(kWait) && receiver.exitCode() == 0);
    const QString log = QString::fromUtf8(receiver.readAllStandardError());
    EXPECT_EQ(log.count("cannot receive Apple events: "), 1) << qPrintable(log);
}
}  // namespace
