// Events between real processes over a real session bus, and to this process's handlers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QElapsedTimer>
#include <QProcess>
#include <QTest>
#include <QThread>
#include <atomic>
#include <thread>

#include "KVAppleEvent.h"
#include "KVAppleEventManager.h"
#include "KVFourCharCode.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

using namespace KVAppleEvent;

namespace {
constexpr int kWait = 5000;  // ms a waiting send may take when all is well

OSType code(const char *text) { return KVFourCharCode::fromString(text); }

constexpr const char *kNoBus = "no session bus: run the tests under dbus-run-session";

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
    // One line at a time, also when several arrived together.
    QString nextLine() {
        QElapsedTimer timer;
        timer.start();
        while (!canReadLine() && timer.elapsed() < 10000) waitForReadyRead(50);
        return canReadLine() ? QString::fromUtf8(readLine()).chopped(1) : QString();
    }
    bool exitedCleanly() {
        return waitForFinished(kWait) && exitStatus() == NormalExit && exitCode() == 0;
    }
};

// Delivery in both modes, parameter unchanged; a missing handler is reported only to a
// sender that waits, which waits until the handler ran or the time-out (the late event
// is still handled). The quit handler answers, ends the receiver, and its pid is unknown.
TEST(KVAppleEventToReceiverTest, DeliversEventsAndAnswersWaitingSendersUntilItQuits) {
    ASSERT_FALSE(qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) << kNoBus;
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
    EXPECT_EQ(sendTest("Nope", "", 0), noErr);

    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(sendTest("Slow", "400", kWait), noErr);
    EXPECT_GE(timer.elapsed(), 400);
    EXPECT_EQ(receiver.nextLine(), "received TEST Slow 400");
    timer.restart();
    EXPECT_EQ(sendTest("Slow", "1500", 300), errAETimeout);
    EXPECT_LT(timer.elapsed(), 1400);
    EXPECT_EQ(receiver.nextLine(), "received TEST Slow 1500");

    EXPECT_EQ(send(pid, code("aevt"), code("quit"), "", kWait), noErr);
    ASSERT_TRUE(receiver.exitedCleanly());
    // The bus lets go of the name as soon as it notices the closed connection.
    EXPECT_TRUE(QTest::qWaitFor([&] { return sendTest("Echo", "", 0) == procNotFound; }, kWait));
}

// Bad arguments are refused before sending; a process receiving no events is unknown.
TEST(KVAppleEventAddressTest, BadCodesTimeOutsAndAddressesAreRefused) {
    EXPECT_EQ(send(getpid(), 0, code("Echo"), "", 0), paramErr);
    EXPECT_EQ(send(getpid(), code("TEST"), 0x41004142, "", 0), paramErr);
    EXPECT_EQ(send(getpid(), code("TEST"), code("Echo"), "", -1), paramErr);
    ASSERT_FALSE(qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) << kNoBus;
    const pid_t child = TestBundle::start(KV_TEST_CHILD);
    ASSERT_GT(child, 0);
    for (pid_t pid : {child, 0, -1})
        for (int timeout : {0, kWait})
            EXPECT_EQ(send(pid, code("TEST"), code("Echo"), "", timeout), procNotFound)
                << pid << " " << timeout;
    TestBundle::stop(child);
}

// Handlers in this process; a worker thread sends, as the installer's worker does.
class KVAppleEventInProcessTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) << kNoBus;
        ASSERT_TRUE(KVAppleEventManager::sharedManager().isReceiving());
    }
    void TearDown() override {
        for (const char *id : {"Ping", "Pong"})
            manager().removeEventHandler(code("TEST"), code(id));
    }

    static KVAppleEventManager &manager() { return KVAppleEventManager::sharedManager(); }

    static int sendFromWorker(const char *eventID, const QString &parameter, int timeout) {
        std::atomic<int> result{1};  // no result: send() never returns a positive code
        std::thread worker(
            [&] { result = send(getpid(), code("TEST"), code(eventID), parameter, timeout); });
        const bool done = QTest::qWaitFor([&] { return result != 1; }, 2 * kWait);
        worker.join();
        return done ? result.load() : 1;
    }
};

// Handlers run on the main thread whoever sends; a later one replaces the earlier,
// removing affects only its pair, and a handler may remove itself while it runs.
TEST_F(KVAppleEventInProcessTest, HandlersRunOnTheMainThreadAndCanBeReplacedOrRemoved) {
    QStringList calls;
    QThread *thread = nullptr;
    manager().setEventHandler(code("TEST"), code("Ping"), [&](const QString &) { calls << "old"; });
    ASSERT_TRUE(manager().setEventHandler(code("TEST"), code("Ping"), [&](const QString &text) {
        calls << text;
        thread = QThread::currentThread();
    }));
    manager().setEventHandler(code("TEST"), code("Pong"), [&](const QString &) {
        calls << "pong";
        manager().removeEventHandler(code("TEST"), code("Pong"));
    });
    EXPECT_EQ(sendFromWorker("Ping", "waited", kWait), noErr);
    EXPECT_EQ(thread, QCoreApplication::instance()->thread());
    EXPECT_EQ(sendFromWorker("Ping", "not waited", 0), noErr);
    EXPECT_TRUE(QTest::qWaitFor([&] { return calls.size() == 2; }, kWait));
    manager().removeEventHandler(code("TEST"), code("Ping"));
    EXPECT_EQ(sendFromWorker("Ping", "", kWait), errAEEventNotHandled);
    EXPECT_EQ(sendFromWorker("Pong", "", kWait), noErr);
    EXPECT_EQ(sendFromWorker("Pong", "", kWait), errAEEventNotHandled);
    EXPECT_EQ(calls, (QStringList{"waited", "not waited", "pong"}));

    // A busy main thread holds a waiting worker only until its time-out; the event is late.
    manager().setEventHandler(code("TEST"), code("Ping"),
                              [&](const QString &) { calls << "late"; });
    std::atomic<int> result{1};
    std::thread worker([&] { result = send(getpid(), code("TEST"), code("Ping"), "", 300); });
    QThread::msleep(1500);
    EXPECT_EQ(result, errAETimeout);
    EXPECT_TRUE(QTest::qWaitFor([&] { return calls.size() == 4; }, kWait));
    worker.join();
}

// Other senders may pass any text as class or ID; only four Latin-1 characters are a code.
TEST_F(KVAppleEventInProcessTest, ClassOrIdOfOtherThanFourCharactersIsABadEvent) {
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "kvtest");
    for (const auto &[eventClass, eventID] :
         {std::pair{"TESTS", "Ping"}, {"TEST", "Pin"}, {"T\u20acST", "Ping"}}) {
        QDBusMessage event =
            QDBusMessage::createMethodCall(QString("org.velmora.events.p%1").arg(getpid()),
                                           "/org/velmora/events", "org.velmora.Events", "Send");
        event << QString(eventClass) << QString(eventID) << QString();
        QDBusPendingCall call = bus.asyncCall(event, kWait);
        ASSERT_TRUE(QTest::qWaitFor([&] { return call.isFinished(); }, 2 * kWait));
        EXPECT_EQ(call.error().name(), "org.velmora.Events.Error.BadEvent") << eventClass;
    }
    QDBusConnection::disconnectFromBus("kvtest");
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
    EXPECT_TRUE(receiver.exitedCleanly());
    const QString log = QString::fromUtf8(receiver.readAllStandardError());
    EXPECT_EQ(log.count("cannot receive Apple events: "), 1) << qPrintable(log);
}
}  // namespace
