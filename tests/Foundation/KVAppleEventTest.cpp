// Events between real processes over a real session bus (delivery itself:
// the installer tests' runs).
#include <gtest/gtest.h>
#include <unistd.h>

#include <QProcess>

#include "KVAppleEvent.h"
#include "KVFourCharCode.h"
#include "TestBundle.h"
#include "TestEnvironment.h"

using namespace KVAppleEvent;

// Refused before sending; a process receiving no events is unknown.
TEST(KVAppleEventAddressTest, BadCodesTimeOutsAndAddressesAreRefused) {
    const OSType test = KVFourCharCode::fromString("TEST"), echo = test + 1;
    EXPECT_EQ(send(getpid(), 0, echo, "", 0), paramErr);
    EXPECT_EQ(send(getpid(), test, 0x41004142, "", 0), paramErr);
    EXPECT_EQ(send(getpid(), test, echo, "", -1), paramErr);
    const pid_t child = TestBundle::start(KV_TEST_CHILD);
    ASSERT_GT(child, 0);
    for (const auto &[pid, timeout] : {std::pair{child, 0}, {child, 5000}, {0, 5000}, {-1, 0}})
        EXPECT_EQ(send(pid, test, echo, "", timeout), procNotFound) << pid;
    TestBundle::stop(child);
}

// Without a bus sending fails with its own code; the receiving side says so once.
TEST(KVAppleEventNoBusTest, SendingFailsWithConnectionInvalidAndReceivingIsOffLoggedOnce) {
    QProcess receiver;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SESSION_BUS_ADDRESS",
                       "unix:path=" + TestEnvironment::makeTempDir("nobus") + "/bus");
    receiver.setProcessEnvironment(environment);
    receiver.start(KV_TEST_EVENT_RECEIVER, {"1", "0", "1", "1000"});
    ASSERT_TRUE(receiver.waitForFinished(10000) && receiver.exitCode() == 0);
    const QByteArray sent = QByteArray("sent ") + QByteArray::number(connectionInvalid) + '\n';
    EXPECT_EQ(receiver.readAllStandardOutput(), "not receiving\n" + sent + sent);
    const QString log = QString::fromUtf8(receiver.readAllStandardError());
    EXPECT_EQ(log.count("cannot receive Apple events: "), 1) << qPrintable(log);
}
