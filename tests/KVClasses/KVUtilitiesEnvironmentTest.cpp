#include <sys/ptrace.h>

#include <QApplication>
#include <QTime>
#include <functional>

#include "BusPeer.h"
#include "KVClassesTest.h"
#include "KVPropertyList.h"
#include "TestPalette.h"
#include "WaylandSession.h"

using namespace KVUtilitiesPrivate;

namespace {

TEST(KVUtilitiesEnvironmentTest, QuietHoursWindowInMinutesAfterMidnight) {
    // clang-format off
    const std::tuple<QVariant, QVariant, int, bool> cases[] = {  // start, end, now, inside
        {1320, 420, 23 * 60 + 30, true}, {1320, 420, 6 * 60 + 59, true},  // 22:00 to 07:00
        {1320, 420, 7 * 60, false}, {1320, 420, 1320, true}, {-60, 60, 23 * 60, true},
        {1440 + 60, 120, 60, true}, {600, 660, 600, true}, {600, 660, 660, false},
        {600, 600, 600, false}, {QStringLiteral("600"), QStringLiteral("660 minutes"), 630, true},
        {600.9, 660.9, 660, false}, {QByteArray("600"), 660, 630, false}};
    // clang-format on
    for (const auto &[start, end, now, inside] : cases)
        EXPECT_EQ(timeInRange(start, end, now), inside)
            << qPrintable(start.toString() + "-" + end.toString()) << " at " << now;
}

class FakeNotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
    Q_PROPERTY(bool Inhibited READ inhibited)

public:
    explicit FakeNotificationServer(bool inhibited) : m_inhibited(inhibited) {}
    bool inhibited() const { return m_inhibited; }

private:
    bool m_inhibited;
};

enum class Server { None, Inhibited, NotInhibited };

QVariant plist(const QVariantMap &map) {
    return KVPropertyList::toData(map, KVPropertyList::Format::Binary);
}

QVariant schedule(const QVariant &enabled, int fromNow, int toNow) {
    const int now = QTime::currentTime().msecsSinceStartOfDay() / 60000;
    return plist(
        {{"scheduledTime",
          QVariantMap{{"enabled", enabled}, {"start", now + fromNow}, {"end", now + toNow}}}});
}

TEST(KVUtilitiesEnvironmentTest, DoNotDisturbFromTheServerOrTheQuietHours) {
    const BusNamesTurn turn;
    const QVariantMap userPref{{"userPref", QVariantMap()}};
    // clang-format off
    const std::tuple<Server, QVariant, bool> cases[] = {
        {Server::Inhibited, QVariant(), true}, {Server::NotInhibited, plist(userPref), true},
        {Server::None, schedule(1, -2, 3), true}, {Server::NotInhibited, schedule(1, 5, 10), false},
        {Server::None, schedule(0, -2, 3), false}, {Server::None, schedule("1", -2, 3), true},
        {Server::None, KVPropertyList::toData(QVariantList{userPref}, KVPropertyList::Format::Xml), false},
        {Server::None, QByteArray("userPref\0\xff", 10), false}, {Server::None, "userPref", false}};
    // clang-format on
    KVUserDefaults notificationDefaults("com.apple.ncprefs");
    int row = 0;
    for (const auto &[server, preferences, quiet] : cases) {
        SCOPED_TRACE(row++);
        std::unique_ptr<BusPeer> peer;
        if (server != Server::None)
            peer = std::make_unique<BusPeer>(
                new FakeNotificationServer(server == Server::Inhibited),
                "org.freedesktop.Notifications", "/org/freedesktop/Notifications");
        ASSERT_TRUE(!peer || peer->registered());
        notificationDefaults.setObject(preferences, "dnd_prefs");
        EXPECT_EQ(KVUtilities::doNotDisturbMode(), quiet);
    }
    notificationDefaults.removeObjectForKey("dnd_prefs");
}

TEST(KVUtilitiesEnvironmentTest, AppearanceAndTintFollowTheApplication) {
    const BusNamesTurn noPortal;
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    // clang-format off
    const std::tuple<std::optional<bool>, QVariant, bool, const char *> cases[] = {
        {std::nullopt, QVariant(), false, "tintYosBlue"}, {true, QVariant(), true, "tintYosDarkBlue"},
        {true, -1, true, "tintYosDarkGraphite"}, {false, -1, false, "tintYosGraphite"}};
    // clang-format on
    QList<QImage> drawn;  // each tint its own drawing
    for (const auto &[darkPalette, accent, dark, tint] : cases) {
        SCOPED_TRACE(tint);
        QApplication::setPalette(darkPalette ? testPalette(*darkPalette) : QPalette());
        defaults.setObject(accent, "AppleAccentColor");
        EXPECT_TRUE(KVUtilities::darkAppearance() == dark && KVUtilities::darkMenuTheme() == dark);
        const QImage image = KVUtilities::systemTintImage();
        EXPECT_TRUE(image == tintImageNamed(tint) && image.size() == QSize(16, 16));
        EXPECT_FALSE(drawn.contains(image));
        drawn << image;
    }
    QApplication::setPalette(QPalette());
    defaults.removeObjectForKey("AppleAccentColor");
    EXPECT_TRUE(tintImageNamed("tintYosDark").isNull() && tintImageNamed("tintYosBlueX").isNull());
}

constexpr int kWindowTimeoutMs = 20000;

// The headless compositor of the Wayland session offers none of these.
TEST(KVUtilitiesNoDisplayCopy, NoAnswersAndFullScreenModeLoggedOnce) {
    if (!Relaunch::isCopy()) GTEST_SKIP() << "runs in copies";
    EXPECT_TRUE(KVUtilities::idleTime() == -1.0 && !KVProcess::frontProcess() &&
                KVUtilities::secureInputProcesses().isEmpty());
    const LogCapture log;
    EXPECT_FALSE(KVUtilities::fullScreenMode());
    EXPECT_FALSE(KVUtilities::fullScreenMode());
    EXPECT_EQ(log.messages(), QStringList("could not install menu bar visibility event handl)"));
}

TEST(KVUtilitiesDesktopTest, WithoutAnX11Display) {
    if (Relaunch::isCopy()) GTEST_SKIP() << "starts the copy";
    WaylandSession wayland;
    ASSERT_EQ(wayland.start(WaylandSession::Clients::Native), "");
    const auto client = wayland.clientScope();
    // Offscreen: Qt's Wayland plugin would leave objects behind at exit.
    EXPECT_TRUE(Relaunch::copyPasses(TestEnvironment::makeTempDir("nodisplay") + "/copy",
                                     "KVUtilitiesNoDisplayCopy.*", {},
                                     {"QT_QPA_PLATFORM=offscreen"}));
}

// Full-screen mode is NO at first even in front of a full-screen window: only
// what happens from then on counts.
TEST(KVUtilitiesDesktopTest, KeyboardGrabsAndFullScreenModeOfOtherPrograms) {
    ASSERT_EQ(XSession::start(), "");  // or why not
    EXPECT_GE(KVUtilities::idleTime(), 0.0);
    std::unique_ptr<QProcess> plain = frontWindow({});
    EXPECT_TRUE(KVUtilities::secureInputProcesses().isEmpty());
    std::unique_ptr<QProcess> grabbing = frontWindow({"--grab-keyboard"});
    KVUtilities::secureInputProcesses();  // asking gives nothing away: the grab stays
    const QList<KVProcessRef> grabbers = KVUtilities::secureInputProcesses();
    EXPECT_TRUE(grabbers.size() == 1 && grabbers[0]->unixPID() == pidOf(grabbing));
    XSession::stop(grabbing);
    const auto becomes = [](const std::function<bool()> &condition) {
        return QTest::qWaitFor(condition, kWindowTimeoutMs);
    };
    EXPECT_TRUE(becomes([] { return KVUtilities::secureInputProcesses().isEmpty(); }));
    std::unique_ptr<QProcess> fullScreen = frontWindow({"--fullscreen"});
    ASSERT_TRUE(becomes([] { return KVWindowServer::isFrontWindowFullScreen(); }));
    // Asked first from another thread, it still watches on the main thread.
    bool first = true;
    std::thread([&first] { first = KVUtilities::fullScreenMode(); }).join();
    EXPECT_FALSE(first);
    QCoreApplication::processEvents();  // the watch starts with the main thread's next turn
    KVWindowServer::bringProcessToFront(pidOf(plain), false);
    EXPECT_TRUE(becomes([&] { return KVWindowServer::frontProcessID() == pidOf(plain); }));
    EXPECT_FALSE(KVUtilities::fullScreenMode());
    KVWindowServer::bringProcessToFront(pidOf(fullScreen), false);
    EXPECT_TRUE(becomes([] { return KVUtilities::fullScreenMode(); }));
    XSession::stop(fullScreen);
    EXPECT_TRUE(becomes([] { return !KVUtilities::fullScreenMode(); }));
    XSession::stop(plain);
    XSession::stop();
}

TEST(KVUtilitiesEnvironmentTest, TracerInTheProcessStatusAndDebuggingWhileTraced) {
    // clang-format off
    const std::pair<QByteArray, bool> cases[] = {
        {"Name:\tx\nTracerPid:\t0\nUid:\t0\n", false}, {"Name:\tx\nTracerPid:\t4242\nUid:\t0\n", true},
        {"Name:\tx\nTracerPid:\t77", true}, {"Name:\tx\nTracerPid:\tjunk\n", false}, {"Name:\tx\n", false}};
    // clang-format on
    for (const auto &[status, traced] : cases)
        EXPECT_EQ(statusShowsTracer(status), traced) << status.data();
    for (const bool traced : {false, true}) {  // a child this process traces sees a debugger
        const pid_t child = fork();
        if (child == 0)
            _exit(traced && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)
                      ? 3
                      : 1 + !KVUtilities::debugging());
        int status = 0;
        EXPECT_TRUE(child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
                    WEXITSTATUS(status) == (traced ? 1 : 2))
            << traced;
    }
}

}  // namespace

#include "KVUtilitiesEnvironmentTest.moc"
