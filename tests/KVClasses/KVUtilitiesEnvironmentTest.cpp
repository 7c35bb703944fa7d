#include <sys/ptrace.h>
#include <sys/stat.h>

#include <QApplication>
#include <QTime>
#include <functional>

#include "BusPeer.h"
#include "KVClassesTest.h"
#include "KVPropertyList.h"
#include "StringExtensions.h"
#include "TestPalette.h"
#include "WaylandSession.h"

using namespace KVUtilitiesPrivate;

namespace {

int minutesNow() { return QTime::currentTime().hour() * 60 + QTime::currentTime().minute(); }

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
    return plist({{"scheduledTime", QVariantMap{{"enabled", enabled},
                                                {"start", minutesNow() + fromNow},
                                                {"end", minutesNow() + toNow}}}});
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
        if (server != Server::None) {
            peer = std::make_unique<BusPeer>(
                new FakeNotificationServer(server == Server::Inhibited),
                "org.freedesktop.Notifications", "/org/freedesktop/Notifications");
            ASSERT_TRUE(peer->registered());
        }
        notificationDefaults.setObject(preferences, "dnd_prefs");
        EXPECT_EQ(KVUtilities::doNotDisturbMode(), quiet);
    }
    notificationDefaults.removeObjectForKey("dnd_prefs");
}

// Only the graphite accent changes the tint.
TEST(KVUtilitiesEnvironmentTest, AppearanceAndTintFollowTheApplication) {
    const BusNamesTurn noPortal;
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    // clang-format off
    const std::tuple<std::optional<bool>, QVariant, bool, const char *> cases[] = {
        {std::nullopt, QVariant(), false, "tintYosBlue"}, {true, QVariant(), true, "tintYosDarkBlue"},
        {true, -1, true, "tintYosDarkGraphite"}, {false, -1, false, "tintYosGraphite"}};
    // clang-format on
    for (const auto &[darkPalette, accent, dark, tint] : cases) {
        SCOPED_TRACE(tint);
        QApplication::setPalette(darkPalette ? testPalette(*darkPalette) : QPalette());
        defaults.setObject(accent, "AppleAccentColor");
        EXPECT_EQ(KVUtilities::darkAppearance(), dark);
        EXPECT_EQ(KVUtilities::darkMenuTheme(), dark);
        EXPECT_EQ(KVUtilities::systemTintImage(), tintImageNamed(QString::fromLatin1(tint)));
    }
    QApplication::setPalette(QPalette());
    defaults.removeObjectForKey("AppleAccentColor");
    QList<QImage> drawn;
    for (const char *name : {"tintYosDarkBlue", "tintYosDarkGraphite", "tintYosBlue",
                             "tintYosGraphite", "tintMavBlue", "tintMavGraphite"}) {
        const QImage image = tintImageNamed(QString::fromLatin1(name));
        EXPECT_TRUE(image.size() == QSize(16, 16) && !drawn.contains(image)) << name;
        drawn.append(image);
    }
    for (const char *name : {"tintYosDark", "tintYosRed", "tintYosBlueX", "TintYosBlue"})
        EXPECT_TRUE(tintImageNamed(QString::fromLatin1(name)).isNull()) << name;
}

constexpr int kWindowTimeoutMs = 20000;

// The headless compositor of the Wayland session offers none of these.
TEST(KVUtilitiesNoDisplayCopy, NoAnswersAndFullScreenModeLoggedOnce) {
    if (!Relaunch::isCopy()) GTEST_SKIP() << "runs in copies";
    EXPECT_EQ(KVUtilities::idleTime(), -1.0);
    EXPECT_TRUE(KVUtilities::secureInputProcesses().isEmpty());
    EXPECT_FALSE(KVProcess::frontProcess());
    EXPECT_EQ(StringExtensions::stringWithVirtualKeyCode(0, 0), "<ERR>");
    const LogCapture log;
    EXPECT_FALSE(KVUtilities::fullScreenMode());
    EXPECT_FALSE(KVUtilities::fullScreenMode());
    EXPECT_EQ(log.messages(), QStringList("could not install menu bar visibility event handl)"));
}

TEST(KVUtilitiesDesktopTest, WithoutAnX11Display) {
    if (Relaunch::isCopy()) GTEST_SKIP() << "starts the copy";
    WaylandSession wayland;
    const QString error = wayland.start(WaylandSession::Clients::Native);
    ASSERT_TRUE(error.isEmpty()) << qPrintable(error);
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
    for (int i = 0; i < 2; ++i) {
        const QList<KVProcessRef> grabbers = KVUtilities::secureInputProcesses();
        EXPECT_TRUE(grabbers.size() == 1 && grabbers[0]->unixPID() == pidOf(grabbing));
    }
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

TEST(KVUtilitiesEnvironmentTest, IdentityFilesGiveTheirFirstReadableText) {
    const QString dir = TestEnvironment::makeTempDir("identity");
    const QString missing = dir + "/missing", blank = dir + "/blank", serial = dir + "/serial",
                  fifo = dir + "/fifo", huge = dir + "/huge", latin1 = dir + "/latin1";
    ASSERT_TRUE(TestEnvironment::writeFile(blank, " \n\t\n") &&
                TestEnvironment::writeFile(serial, "  C02X1234\n") &&
                TestEnvironment::writeFile(huge, QByteArray(10000, 'z')) &&
                TestEnvironment::writeFile(latin1, "S\xe9rie\n"));
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    // clang-format off
    const std::pair<QStringList, QString> cases[] = {
        {{missing, blank, dir, fifo, serial}, "C02X1234"}, {{missing, blank, dir, fifo}, QString()},
        {{huge}, QString(4096, u'z')}, {{latin1}, "S\uFFFDrie"}};
    // clang-format on
    for (const auto &[paths, expected] : cases) {
        const QString text = firstReadableText(paths);
        EXPECT_TRUE(text == expected && text.isNull() == expected.isNull()) << qPrintable(text);
    }
    const QString id = KVUtilities::uniqueComputerID();
    EXPECT_FALSE(id.isEmpty());
    EXPECT_EQ(KVUtilities::uniqueComputerID().constData(), id.constData());
}

TEST(KVUtilitiesEnvironmentTest, TracerInTheProcessStatusAndDebuggingWhileTraced) {
    // clang-format off
    const std::pair<QByteArray, bool> cases[] = {
        {"Name:\tx\nTracerPid:\t0\nUid:\t0\n", false}, {"Name:\tx\nTracerPid:\t4242\nUid:\t0\n", true},
        {"Name:\tx\nTracerPid:\t77", true}, {"Name:\tx\nTracerPid:\tjunk\n", false}, {"Name:\tx\n", false}};
    // clang-format on
    for (const auto &[status, traced] : cases)
        EXPECT_EQ(statusShowsTracer(status), traced) << status.data();
    for (const bool traced : {false, true}) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (traced && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(3);
            _exit(KVUtilities::debugging() ? 1 : 2);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == (traced ? 1 : 2)) << traced;
    }
}

}  // namespace

#include "KVUtilitiesEnvironmentTest.moc"
