#include <QRegularExpression>

#include "AccessibilityBus.h"
#include "KVAccessibility.h"
#include "KVClassesTest.h"
#include "KVNotificationCenter.h"

namespace {
constexpr int kWaitMs = 30000;

// As "event role name", read on delivery (on the main thread, where the element may be asked).
class UINotifications : public QStringList {
public:
    explicit UINotifications(const void *sender) {
        m_token = KVNotificationCenter::defaultCenter().addObserver(
            KVProcessUINotification, sender, [this](const KVNotification &notification) {
                const auto element =
                    notification.userInfo.value("element").value<KVAccessibilityElement>();
                append(notification.userInfo.value("event").toString() + " " + element.role() +
                       " " + element.name());
            });
    }
    ~UINotifications() { KVNotificationCenter::defaultCenter().removeObserver(m_token); }
    bool arrives(const QString &start, int count = 1) {
        return QTest::qWaitFor(
            [&] { return filter(QRegularExpression("^" + start)).size() >= count; }, kWaitMs);
    }

private:
    int m_token = 0;
};

class KVProcessAccessibilityTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(XSession::start(), "");
        ASSERT_EQ(AccessibilityBus::start(), "");
        {
            const ScopedEnv session("DBUS_SESSION_BUS_ADDRESS",
                                    AccessibilityBus::sessionBusAddress());
            window = frontWindow({"--title", "accessible", "--cycle-focus"});
        }
        record = KVProcess::processWithPID(pidOf(window));
        ASSERT_TRUE(record);
        // The program joins the accessibility bus a moment after its window shows.
        ASSERT_TRUE(QTest::qWaitFor(
            [this] { return !KVAccessibility::applicationElement(pidOf(window)).isNull(); },
            kWaitMs));
    }
    void TearDown() override {
        XSession::stop(window);
        AccessibilityBus::stop();
        XSession::stop();
    }

    const ScopedEnv accessibilityOn{"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"};
    std::unique_ptr<QProcess> window;
    KVProcessRef record;
};

TEST_F(KVProcessAccessibilityTest, FocusChangesArriveWithTheirElementUntilRemoved) {
    UINotifications received(record.get());
    const LogCapture log;
    for (const char *name : {"AXFocusedUIElementChanged", "AXValueChanged", "AXNoSuchNotification"})
        record->addAXNotification(name);
    ASSERT_TRUE(received.arrives("AXFocusedUIElementChanged .* first$") &&
                received.arrives("AXFocusedUIElementChanged .* second$"))
        << qPrintable(received.join('\n'));
    EXPECT_EQ(log.messages(), QStringList("AX Notifications: Could not add notification "
                                          "AXNoSuchNotification for " +
                                          record->description()));
    // What was enqueued before the removal is delivered on the next turn.
    record->removeAXNotification("AXFocusedUIElementChanged");
    QCoreApplication::processEvents();
    received.clear();
    ASSERT_TRUE(received.arrives("AXValueChanged slider ", 3)) << qPrintable(received.join('\n'));
    EXPECT_EQ(received.filter("AXValueChanged slider ").size(), received.size());
    // The last owner may be another thread: the observer goes on the main thread.
    XSession::stop(window);
    record.reset();
    std::thread([] { KVProcess::cleanupCache(); }).join();
    QCoreApplication::processEvents();
}
}  // namespace
