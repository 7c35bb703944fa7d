// Accessibility notifications of one application: a real accessibility bus
// on the test's X server and a real Qt program with accessibility on, whose
// focus and slider change every 50 ms (kvtest_window --cycle-focus).
#include <gtest/gtest.h>

#include <QTest>
#include <thread>

#include "AccessibilityBus.h"
#include "FrontWindow.h"
#include "KVAccessibility.h"
#include "KVNotificationCenter.h"
#include "KVProcess.h"
#include "LogCapture.h"
#include "Relaunch.h"
#include "TestEnvironment.h"

namespace {
constexpr int kWaitMs = 30000;

struct Received {
    QString event;
    QString elementName;
    QString elementRole;
};

// The record's notifications, read as they are delivered (on the main
// thread, where the element may be asked about itself).
class UINotifications {
public:
    explicit UINotifications(const void *sender) {
        m_token = KVNotificationCenter::defaultCenter().addObserver(
            KVProcessUINotification, sender, [this](const KVNotification &notification) {
                const auto element =
                    notification.userInfo.value("element").value<KVAccessibilityElement>();
                list.append({notification.userInfo.value("event").toString(), element.name(),
                             element.role()});
            });
    }
    ~UINotifications() { KVNotificationCenter::defaultCenter().removeObserver(m_token); }

    qsizetype count(const QString &event) const {
        return std::count_if(list.begin(), list.end(),
                             [&](const Received &r) { return r.event == event; });
    }
    bool sawFocusOn(const QString &name) const {
        return std::any_of(list.begin(), list.end(), [&](const Received &r) {
            return r.event == "AXFocusedUIElementChanged" && r.elementName == name;
        });
    }

    // For failure messages.
    QString summary() const {
        QStringList lines;
        for (const Received &r : list) lines << r.event + " " + r.elementRole + " " + r.elementName;
        return lines.join('\n');
    }

    QList<Received> list;

private:
    int m_token = 0;
};

// Runs the test the filter names in a fresh copy of this program.
testing::AssertionResult copyPasses(const QString &filter, const QString &environment) {
    return Relaunch::copyPasses(TestEnvironment::makeTempDir("copy") + "/tests", filter, {},
                                {environment});
}

class KVProcessAccessibilityTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_error = XSession::start();
        if (s_error.isEmpty()) s_error = AccessibilityBus::start();
    }
    static void TearDownTestSuite() {
        AccessibilityBus::stop();
        XSession::stop();
    }

    void SetUp() override {
        if (!s_error.isEmpty()) GTEST_FAIL() << qPrintable(s_error);
        {
            const ScopedEnv session("DBUS_SESSION_BUS_ADDRESS",
                                    AccessibilityBus::sessionBusAddress());
            window = frontWindow({"--title", "accessible", "--cycle-focus"});
        }
        ASSERT_TRUE(window);
        record = KVProcess::processWithPID(pidOf(window));
        ASSERT_TRUE(record);
        // The program joins the accessibility bus a moment after its window shows.
        ASSERT_TRUE(QTest::qWaitFor(
            [this] { return !KVAccessibility::applicationElement(pidOf(window)).isNull(); },
            kWaitMs));
    }
    void TearDown() override { XSession::stop(window); }

    static QString s_error;
    const ScopedEnv accessibilityOn{"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"};
    std::unique_ptr<QProcess> window;
    KVProcessRef record;
};
QString KVProcessAccessibilityTest::s_error;

TEST_F(KVProcessAccessibilityTest, FocusChangesArriveWithTheirElementUntilRemoved) {
    UINotifications received(record.get());
    record->addAXNotification("AXFocusedUIElementChanged");
    record->addAXNotification("AXValueChanged");
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return received.sawFocusOn("first") && received.sawFocusOn("second"); }, kWaitMs))
        << qPrintable(received.summary());

    // What was enqueued before the removal is delivered on the next turn.
    record->removeAXNotification("AXFocusedUIElementChanged");
    QCoreApplication::processEvents();
    received.list.clear();
    ASSERT_TRUE(QTest::qWaitFor([&] { return received.count("AXValueChanged") >= 3; }, kWaitMs))
        << qPrintable(received.summary());
    EXPECT_EQ(received.count("AXFocusedUIElementChanged"), 0);
    for (const Received &r : received.list) EXPECT_EQ(r.elementRole, "slider");

    // The last owner of a record may be another thread: its observer is let
    // go on the main thread (which ThreadSanitizer checks).
    XSession::stop(window);
    record.reset();
    std::thread([] { KVProcess::cleanupCache(); }).join();
    QCoreApplication::processEvents();
}

// Names of the library's callers map to AT-SPI events; other AT-SPI event
// types pass through; anything else cannot be observed.
TEST_F(KVProcessAccessibilityTest, NamesAreMappedPassedThroughOrRefused) {
    const QString passedThrough = "object:state-changed:focused";
    UINotifications received(record.get());
    const LogCapture log;
    for (const QString &name : {passedThrough, QString("AXNoSuchNotification"), QString("")})
        record->addAXNotification(name);
    ASSERT_TRUE(QTest::qWaitFor([&] { return received.count(passedThrough) > 0; }, kWaitMs));
    const QString description = record->description();
    EXPECT_EQ(
        log.messages(),
        QStringList(
            {"AX Notifications: Could not add notification AXNoSuchNotification for " + description,
             "AX Notifications: Could not add notification  for " + description}));
}

// The bus's traffic needs no GLib event loop: the same notifications arrive
// in a copy whose loop is Qt's own.
TEST(KVProcessAccessibilityLoopTest, NotificationsArriveWithoutGLibsEventLoop) {
    EXPECT_TRUE(copyPasses("KVProcessAccessibilityTest.FocusChanges*", "QT_NO_GLIB=1"));
}

// libatspi connects once per process, so the case without a bus runs in a
// copy of this program whose bus address leads nowhere.
TEST(KVProcessAccessibilityWithoutBusTest, LogsOnceAndPostsNothing) {
    if (!Relaunch::isCopy()) {
        EXPECT_TRUE(copyPasses("KVProcessAccessibilityWithoutBus*",
                               "AT_SPI_BUS_ADDRESS=unix:path=/nonexistent/at-spi"));
        return;
    }
    // This program itself, and a process that has ended (pid 0).
    const KVProcessRef running = KVProcess::currentProcess();
    const auto ended = std::make_shared<KVProcess>(ProcessSerialNumber{0, 0});
    for (const KVProcessRef &record : {running, ended}) {
        UINotifications received(record.get());
        const LogCapture log;
        record->addAXNotification("AXFocusedUIElementChanged");
        QCoreApplication::processEvents();
        EXPECT_EQ(log.messages(),
                  QStringList("AX Notifications: Could not create application object for " +
                              record->description()));
        EXPECT_TRUE(received.list.isEmpty());
    }
}
}  // namespace
