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

// Events travel over a real session bus; without one, the tests fail rather
// than pass without having sent anything.
void requireSessionBus() {
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS"))
        GTEST_FAIL() << "no session bus: run the tests under dbus-run-session "
                        "(scripts/test does)";
}

// A kvtest_event_receiver child process, stopped and reaped with the object.
class Receiver {
public:
    ~Receiver() {
        if (m_process.state() == QProcess::NotRunning) return;
        m_process.terminate();
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished(-1);
        }
    }

    // Starts it and waits for its first line ("ready" or "not receiving").
    QString start(const QStringList &arguments = {}, const QProcessEnvironment &environment =
                                                         QProcessEnvironment::systemEnvironment()) {
        m_process.setProcessEnvironment(environment);
        m_process.start(KV_TEST_EVENT_RECEIVER, arguments);
        m_read = 1;
        return waitForLine(0) ? m_lines.value(0) : QString();
    }

    pid_t pid() const { return pid_t(m_process.processId()); }

    // True once the child has printed more than `count` lines.
    bool waitForLine(qsizetype count, int milliseconds = 10000) {
        QElapsedTimer timer;
        timer.start();
        while (m_lines.size() <= count && timer.elapsed() < milliseconds) {
            m_process.waitForReadyRead(50);
            m_pending += m_process.readAllStandardOutput();
            for (qsizetype end; (end = m_pending.indexOf('\n')) >= 0; m_pending.remove(0, end + 1))
                m_lines << QString::fromUtf8(m_pending.left(end));
        }
        return m_lines.size() > count;
    }

    // The next line not yet handed out; lines that arrived together with an
    // earlier one are not skipped.
    QString nextLine() { return waitForLine(m_read) ? m_lines.value(m_read++) : QString(); }

    bool exitedCleanly(int milliseconds) {
        return m_process.waitForFinished(milliseconds) &&
               m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
    }

    void terminate() { m_process.terminate(); }
    QString standardError() { return QString::fromUtf8(m_process.readAllStandardError()); }

private:
    QProcess m_process;
    QByteArray m_pending;
    QStringList m_lines;
    qsizetype m_read = 0;
};

class KVAppleEventToReceiverTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(requireSessionBus());
        ASSERT_EQ(m_receiver.start(), "ready");
    }
    Receiver m_receiver;
};

TEST_F(KVAppleEventToReceiverTest, EventSentWithoutWaitingReachesTheHandler) {
    EXPECT_EQ(send(m_receiver.pid(), code("TEST"), code("Echo"), "hello", 0), noErr);
    EXPECT_EQ(m_receiver.nextLine(), "received TEST Echo hello");
}

TEST_F(KVAppleEventToReceiverTest, WaitingSendReturnsOnlyAfterTheHandlerHasRun) {
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(send(m_receiver.pid(), code("TEST"), code("Slow"), "400", kWait), noErr);
    EXPECT_GE(timer.elapsed(), 400);
    EXPECT_EQ(m_receiver.nextLine(), "received TEST Slow 400");
}

TEST_F(KVAppleEventToReceiverTest, TextParameterWithSpacesAndNonAsciiArrivesUnchanged) {
    const QString text = QString::fromUtf8("Grüße  aus 東京 – 2.1 ");
    for (int timeout : {0, kWait}) {
        SCOPED_TRACE(timeout);
        EXPECT_EQ(send(m_receiver.pid(), code("TEST"), code("Echo"), text, timeout), noErr);
        EXPECT_EQ(m_receiver.nextLine(), "received TEST Echo " + text);
    }
}

TEST_F(KVAppleEventToReceiverTest, PairWithoutHandlerIsReportedOnlyWhenWaiting) {
    EXPECT_EQ(send(m_receiver.pid(), code("TEST"), code("Nope"), "", kWait), errAEEventNotHandled);
    EXPECT_EQ(send(m_receiver.pid(), code("TEST"), code("Nope"), "", 0), noErr);
    EXPECT_EQ(send(m_receiver.pid(), code("TEST"), code("Echo"), "still here", kWait), noErr);
    EXPECT_EQ(m_receiver.nextLine(), "received TEST Echo still here");
}

TEST_F(KVAppleEventToReceiverTest, WaitBeyondTheTimeOutFailsAndTheReceiverAnswersAfterwards) {
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(send(m_receiver.pid(), code("TEST"), code("Slow"), "1500", 300), errAETimeout);
    EXPECT_LT(timer.elapsed(), 1400);
    EXPECT_EQ(send(m_receiver.pid(), code("TEST"), code("Echo"), "later", kWait), noErr);
}

TEST_F(KVAppleEventToReceiverTest, QuitEventEndsTheReceiverWhichThenIsNotFound) {
    const pid_t pid = m_receiver.pid();
    EXPECT_EQ(send(pid, code("aevt"), code("quit"), "", kWait), noErr);
    ASSERT_TRUE(m_receiver.exitedCleanly(kWait));
    // The bus lets go of the name as soon as it notices the closed connection.
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return send(pid, code("aevt"), code("quit"), "", 0) == procNotFound; }, kWait));
    EXPECT_EQ(send(pid, code("aevt"), code("quit"), "", kWait), procNotFound);
}

TEST_F(KVAppleEventToReceiverTest, QuitEventSentWithoutWaitingEndsTheReceiver) {
    EXPECT_EQ(send(m_receiver.pid(), code("aevt"), code("quit"), "", 0), noErr);
    EXPECT_TRUE(m_receiver.exitedCleanly(kWait));
}

TEST(KVAppleEventAddressTest, ProcessWithoutReceiverIsNotFoundInBothModes) {
    ASSERT_NO_FATAL_FAILURE(requireSessionBus());
    const pid_t pid = TestBundle::start(KV_TEST_CHILD);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(send(pid, code("TEST"), code("Echo"), "", 0), procNotFound);
    EXPECT_EQ(send(pid, code("TEST"), code("Echo"), "", kWait), procNotFound);
    TestBundle::stop(pid);
}

TEST(KVAppleEventAddressTest, PidZeroOrBelowIsNotFoundInBothModes) {
    for (pid_t pid : {0, -1})
        for (int timeout : {0, kWait})
            EXPECT_EQ(send(pid, code("TEST"), code("Echo"), "", timeout), procNotFound) << pid;
}

TEST(KVAppleEventAddressTest, CodeWithAZeroByteOrANegativeTimeOutIsAParameterError) {
    EXPECT_EQ(send(getpid(), 0, code("Echo"), "", 0), paramErr);
    EXPECT_EQ(send(getpid(), code("TEST"), 0x41004142, "", 0), paramErr);
    EXPECT_EQ(send(getpid(), code("TEST"), code("Echo"), "", -1), paramErr);
}

// Handlers in this very process; the main thread spins its event loop while a
// worker thread sends, as the installer's worker does.
class KVAppleEventInProcessTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(requireSessionBus());
        ASSERT_TRUE(KVAppleEventManager::sharedManager().isReceiving());
    }
    void TearDown() override {
        for (const char *id : {"Ping", "Pong"})
            manager().removeEventHandler(code("TEST"), code(id));
    }

    static KVAppleEventManager &manager() { return KVAppleEventManager::sharedManager(); }

    // Sends from a worker thread while the main thread serves events.
    static int sendFromWorker(const char *eventID, const QString &parameter, int timeout) {
        std::atomic<int> result{1};  // no result: send() never returns a positive code
        std::thread worker(
            [&] { result = send(getpid(), code("TEST"), code(eventID), parameter, timeout); });
        const bool done = QTest::qWaitFor([&] { return result != 1; }, 2 * kWait);
        worker.join();
        return done ? result.load() : 1;
    }
};

TEST_F(KVAppleEventInProcessTest, HandlerRunsOnTheMainThreadForAnEventFromAWorker) {
    QThread *handlerThread = nullptr;
    QString received;
    ASSERT_TRUE(manager().setEventHandler(code("TEST"), code("Ping"), [&](const QString &text) {
        handlerThread = QThread::currentThread();
        received = text;
    }));
    EXPECT_EQ(sendFromWorker("Ping", "from the worker", kWait), noErr);
    EXPECT_EQ(received, "from the worker");
    EXPECT_EQ(handlerThread, QCoreApplication::instance()->thread());

    received.clear();
    EXPECT_EQ(sendFromWorker("Ping", "no wait", 0), noErr);
    EXPECT_TRUE(QTest::qWaitFor([&] { return received == "no wait"; }, kWait));
}

TEST_F(KVAppleEventInProcessTest, ReplacedHandlerGetsTheLaterEvents) {
    QStringList calls;
    manager().setEventHandler(code("TEST"), code("Ping"), [&](const QString &) { calls << "old"; });
    manager().setEventHandler(code("TEST"), code("Ping"), [&](const QString &) { calls << "new"; });
    EXPECT_EQ(sendFromWorker("Ping", "", kWait), noErr);
    EXPECT_EQ(calls, QStringList{"new"});
}

TEST_F(KVAppleEventInProcessTest, RemovedHandlerLeavesThePairNotHandled) {
    int calls = 0;
    manager().setEventHandler(code("TEST"), code("Ping"), [&](const QString &) { ++calls; });
    manager().setEventHandler(code("TEST"), code("Pong"), [&](const QString &) { ++calls; });
    manager().removeEventHandler(code("TEST"), code("Ping"));
    EXPECT_EQ(sendFromWorker("Ping", "", kWait), errAEEventNotHandled);
    EXPECT_EQ(sendFromWorker("Pong", "", kWait), noErr);
    EXPECT_EQ(calls, 1);
}

TEST_F(KVAppleEventInProcessTest, HandlerMayRemoveItselfWhileItRuns) {
    int calls = 0;
    manager().setEventHandler(code("TEST"), code("Ping"), [&](const QString &) {
        ++calls;
        manager().removeEventHandler(code("TEST"), code("Ping"));
    });
    EXPECT_EQ(sendFromWorker("Ping", "", kWait), noErr);
    EXPECT_EQ(sendFromWorker("Ping", "", kWait), errAEEventNotHandled);
    EXPECT_EQ(calls, 1);
}

TEST_F(KVAppleEventInProcessTest, ClassOrIdOfOtherThanFourCharactersIsABadEvent) {
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "kvtest");
    for (const auto &[eventClass, eventID] : {std::pair{"TESTS", "Ping"}, {"TEST", "Pin"}}) {
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

TEST_F(KVAppleEventInProcessTest, WaitFromAWorkerEndsAtTheTimeOutWhileTheMainThreadIsBusy) {
    int calls = 0;
    manager().setEventHandler(code("TEST"), code("Ping"), [&](const QString &) { ++calls; });
    std::atomic<int> result{1};
    std::thread worker([&] { result = send(getpid(), code("TEST"), code("Ping"), "", 300); });
    QThread::msleep(1500);  // the main thread serves no events meanwhile
    EXPECT_EQ(result, errAETimeout);
    // The event is late, not lost.
    EXPECT_TRUE(QTest::qWaitFor([&] { return calls == 1; }, kWait));
    worker.join();
}

TEST(KVAppleEventNoBusTest, SendingFailsWithConnectionInvalidAndReceivingIsOffLoggedOnce) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SESSION_BUS_ADDRESS",
                       "unix:path=" + TestEnvironment::makeTempDir("nobus") + "/bus");
    Receiver receiver;
    const QStringList arguments{"--send", "1", "TEST", "Echo", "0",    "x",
                                "--send", "1", "TEST", "Echo", "1000", "x"};
    ASSERT_EQ(receiver.start(arguments, environment), "not receiving");
    EXPECT_EQ(receiver.nextLine(), QString("sent %1").arg(connectionInvalid));
    EXPECT_EQ(receiver.nextLine(), QString("sent %1").arg(connectionInvalid));
    receiver.terminate();
    EXPECT_TRUE(receiver.exitedCleanly(kWait));
    const QString log = receiver.standardError();
    EXPECT_EQ(log.count("cannot receive Apple events: "), 1) << log.toStdString();
}
}  // namespace
