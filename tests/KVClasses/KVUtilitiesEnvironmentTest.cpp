#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <QFile>
#include <QPalette>
#include <QProcess>
#include <QTest>
#include <QTime>
#include <thread>

#include "BusPeer.h"
#include "FrontWindow.h"
#include "KVDynamicColor.h"
#include "KVProcess.h"
#include "KVPropertyList.h"
#include "KVUserDefaults.h"
#include "KVUtilities.h"
#include "KVUtilities_p.h"
#include "KVWindowServer.h"
#include "LogCapture.h"
#include "Relaunch.h"
#include "StringExtensions.h"
#include "TestEnvironment.h"
#include "TestPalette.h"
#include "WaylandSession.h"
#include "XSession.h"

using namespace KVUtilitiesPrivate;

namespace {

TEST(KVUtilitiesEnvironmentTest, QuietHoursWindowInMinutesAfterMidnight) {
    // clang-format off
    const std::tuple<QVariant, QVariant, int, bool> cases[] = {  // start, end, now, inside
        {1320, 420, 23 * 60 + 30, true}, {1320, 420, 6 * 60 + 59, true},  // 22:00 to 07:00
        {1320, 420, 7 * 60, false}, {1320, 420, 12 * 60, false}, {1320, 420, 1320, true},
        {-60, 60, 23 * 60, true}, {-60, 60, 22 * 60 + 59, false},  // -60 is 23:00
        {1440 + 60, 120, 60, true},  // past a day wraps around
        {600, 660, 600, true}, {600, 660, 660, false}, {600, 600, 600, false},  // equal: never
        {QStringLiteral("600"), QStringLiteral("660 minutes"), 630, true},
        {600.9, 660.9, 660, false}, {QVariant(), 660, 630, false},
        {600, QVariantList{660}, 630, false}, {QByteArray("600"), 660, 630, false}};
    // clang-format on
    for (const auto &[start, end, now, inside] : cases)
        EXPECT_EQ(timeInRange(start, end, now), inside)
            << qPrintable(start.toString() + "-" + end.toString()) << " at " << now;
    const QTime now = QTime::currentTime();
    const int minutes = now.hour() * 60 + now.minute();
    EXPECT_TRUE(KVUtilities::currentTimeInDNDRangeStartMinutes(minutes - 2, minutes + 3));
    EXPECT_FALSE(KVUtilities::currentTimeInDNDRangeStartMinutes(minutes + 5, minutes + 10));
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

QVariantMap schedule(const QVariant &enabled, int fromNow, int toNow) {
    const QTime now = QTime::currentTime();
    const int minutes = now.hour() * 60 + now.minute();
    return {
        {QStringLiteral("scheduledTime"), QVariantMap{{QStringLiteral("enabled"), enabled},
                                                      {QStringLiteral("start"), minutes + fromNow},
                                                      {QStringLiteral("end"), minutes + toNow}}}};
}

TEST(KVUtilitiesEnvironmentTest, DoNotDisturbFromTheServerOrTheQuietHours) {
    const BusNamesTurn turn;
    const QVariantMap userPref{{QStringLiteral("userPref"), QVariantMap()}};
    const std::tuple<const char *, Server, QVariant, bool> cases[] = {
        {"no server, no preferences", Server::None, QVariant(), false},
        {"server holding back", Server::Inhibited, QVariant(), true},
        {"server not holding back", Server::NotInhibited, QVariant(), false},
        {"switched on by hand", Server::NotInhibited, plist(userPref), true},
        {"quiet hours now", Server::None, plist(schedule(1, -2, 3)), true},
        {"quiet hours later", Server::NotInhibited, plist(schedule(1, 5, 10)), false},
        {"quiet hours switched off", Server::None, plist(schedule(0, -2, 3)), false},
        {"enabled is not exactly 1", Server::None, plist(schedule(2, -2, 3)), false},
        {"enabled as a text", Server::None, plist(schedule(QStringLiteral("1"), -2, 3)), true},
        {"a list, not a dictionary", Server::None,
         KVPropertyList::toData(QVariantList{userPref}, KVPropertyList::Format::Xml), false},
        {"not a property list", Server::None, QByteArray("userPref\0\xff", 10), false},
        {"a text, not data", Server::None, QStringLiteral("userPref"), false}};
    KVUserDefaults notificationDefaults(QStringLiteral("com.apple.ncprefs"));
    for (const auto &[name, server, preferences, quiet] : cases) {
        SCOPED_TRACE(name);
        std::unique_ptr<BusPeer> peer;
        if (server != Server::None) {
            peer =
                std::make_unique<BusPeer>(new FakeNotificationServer(server == Server::Inhibited),
                                          QStringLiteral("org.freedesktop.Notifications"),
                                          QStringLiteral("/org/freedesktop/Notifications"));
            ASSERT_TRUE(peer->registered());
        }
        notificationDefaults.setObject(preferences, QStringLiteral("dnd_prefs"));
        EXPECT_EQ(KVUtilities::doNotDisturbMode(), quiet);
    }
    notificationDefaults.removeObjectForKey(QStringLiteral("dnd_prefs"));
}

// Without a palette of the application's own and without a desktop portal
// the appearance is light; the application's palette decides when it set
// one. The tint image follows the appearance and the graphite accent.
TEST(KVUtilitiesEnvironmentTest, AppearanceAndTintFollowTheApplication) {
    const BusNamesTurn noPortal;
    KVUserDefaults &defaults = KVUserDefaults::standardUserDefaults();
    // clang-format off
    const std::tuple<std::optional<bool>, QVariant, bool, const char *> cases[] = {
        {std::nullopt, QVariant(), false, "tintYosBlue"},
        {true, QVariant(), true, "tintYosDarkBlue"}, {false, 3, false, "tintYosBlue"},
        {true, -1, true, "tintYosDarkGraphite"}, {false, -1, false, "tintYosGraphite"},
        {std::nullopt, QStringLiteral("-1"), false, "tintYosGraphite"}};
    // clang-format on
    for (const auto &[darkPalette, accent, dark, tint] : cases) {
        SCOPED_TRACE(tint);
        QApplication::setPalette(darkPalette ? testPalette(*darkPalette) : QPalette());
        defaults.setObject(accent, QStringLiteral("AppleAccentColor"));
        EXPECT_EQ(KVUtilities::darkAppearance(), dark);
        EXPECT_EQ(KVUtilities::darkMenuTheme(), dark);
        EXPECT_FALSE(KVUtilities::systemTintImage().isNull());
        EXPECT_EQ(KVUtilities::systemTintImage(), tintImageNamed(QString::fromLatin1(tint)));
    }
    QApplication::setPalette(QPalette());
    defaults.removeObjectForKey(QStringLiteral("AppleAccentColor"));
}

TEST(KVUtilitiesEnvironmentTest, TintImagesAreDrawnForTheirNamesOnly) {
    QList<QImage> drawn;
    for (const char *name : {"tintYosDarkBlue", "tintYosDarkGraphite", "tintYosBlue",
                             "tintYosGraphite", "tintMavBlue", "tintMavGraphite"}) {
        const QImage image = tintImageNamed(QString::fromLatin1(name));
        EXPECT_EQ(image.size(), QSize(16, 16)) << name;
        EXPECT_FALSE(drawn.contains(image)) << name << " looks like another one";
        drawn.append(image);
    }
    for (const char *name : {"", "tintYos", "tintYosDark", "tintYosRed", "tintYosBlueX",
                             "tintYosDarkBlu", "TintYosBlue", "xtintYosBlue"})
        EXPECT_TRUE(tintImageNamed(QString::fromLatin1(name)).isNull()) << name;
}

TEST(KVUtilitiesEnvironmentTest, ReducedTransparencyFromTheUniversalAccessSuite) {
    KVUserDefaults universalAccess(QStringLiteral("com.apple.universalaccess"));
    // clang-format off
    const std::pair<QVariant, bool> cases[] = {
        {QVariant(), false}, {true, true}, {1, true}, {QStringLiteral("YES"), true}, {false, false},
        {0, false}, {QStringLiteral("junk"), false}, {QVariantList{true}, false}};
    // clang-format on
    for (const auto &[stored, reduced] : cases) {
        universalAccess.setObject(stored, QStringLiteral("reduceTransparency"));
        EXPECT_EQ(KVUtilities::reducedTransparency(), reduced) << qPrintable(stored.toString());
    }
    universalAccess.removeObjectForKey(QStringLiteral("reduceTransparency"));
    EXPECT_FALSE(KVUtilities::displayIsZoomed());
}

constexpr int kWindowTimeoutMs = 20000;

QList<pid_t> secureInputPIDs() {
    QList<pid_t> pids;
    for (const KVProcessRef &process : KVUtilities::secureInputProcesses())
        pids.append(process->unixPID());
    return pids;
}

// In copies of this program without an X11 display, bare or in a Wayland
// session (whose headless compositor offers no protocol for any of these):
// no idle time, no secure input, no front process, no key names, and
// full-screen mode cannot be watched, which is logged once.
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
    const auto copy = [] {
        return TestEnvironment::makeTempDir(QStringLiteral("nodisplay")) + "/copy";
    };
    EXPECT_TRUE(Relaunch::copyPasses(copy(), "KVUtilitiesNoDisplayCopy.*", {}, {"DISPLAY="}));
    const auto client = wayland.clientScope();
    // The answers come from the library's own connections, not from Qt's
    // (whose Wayland plugin leaves objects behind at exit).
    EXPECT_TRUE(Relaunch::copyPasses(copy(), "KVUtilitiesNoDisplayCopy.*", {},
                                     {"QT_QPA_PLATFORM=offscreen"}));
}

TEST(KVUtilitiesDesktopTest, IdleTimeAndAKeyboardGrabOfAnotherProgram) {
    ASSERT_EQ(XSession::start(), "");  // or why not
    EXPECT_GE(KVUtilities::idleTime(), 0.0);
    std::unique_ptr<QProcess> plain = frontWindow({});
    EXPECT_EQ(secureInputPIDs(), QList<pid_t>());
    std::unique_ptr<QProcess> grabbing = frontWindow({"--grab-keyboard"});
    EXPECT_EQ(secureInputPIDs(), QList<pid_t>{pidOf(grabbing)});
    // Asking gives nothing away: the grab stays with its owner.
    EXPECT_EQ(secureInputPIDs(), QList<pid_t>{pidOf(grabbing)});
    XSession::stop(grabbing);
    EXPECT_TRUE(QTest::qWaitFor([] { return secureInputPIDs().isEmpty(); }, kWindowTimeoutMs));
    XSession::stop(plain);
    XSession::stop();
}

// The first answer is NO even in front of a full-screen window: only what
// happens from then on counts. Activating a full-screen window turns it YES,
// activating another one NO again.
TEST(KVUtilitiesDesktopTest, FullScreenModeFollowsTheActiveWindow) {
    ASSERT_EQ(XSession::start(), "");  // or why not
    std::unique_ptr<QProcess> plain = frontWindow({});
    std::unique_ptr<QProcess> fullScreen = frontWindow({"--fullscreen"});
    ASSERT_TRUE(QTest::qWaitFor([] { return KVWindowServer::isFrontWindowFullScreen(); },
                                kWindowTimeoutMs));
    // Asked first from another thread, it still watches on the main thread.
    bool first = true;
    std::thread([&first] { first = KVUtilities::fullScreenMode(); }).join();
    EXPECT_FALSE(first);
    // The watch starts with the main thread's next turn; a change before
    // that would go unseen.
    QCoreApplication::processEvents();
    EXPECT_FALSE(KVUtilities::fullScreenMode());
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        KVWindowServer::bringProcessToFront(pidOf(plain), false);
        EXPECT_TRUE(QTest::qWaitFor(
            [&] {
                return KVWindowServer::frontProcessID() == pidOf(plain) &&
                       !KVUtilities::fullScreenMode();
            },
            kWindowTimeoutMs));
        KVWindowServer::bringProcessToFront(pidOf(fullScreen), false);
        EXPECT_TRUE(
            QTest::qWaitFor([] { return KVUtilities::fullScreenMode(); }, kWindowTimeoutMs));
    }
    XSession::stop(fullScreen);
    EXPECT_TRUE(QTest::qWaitFor([] { return !KVUtilities::fullScreenMode(); }, kWindowTimeoutMs));
    XSession::stop(plain);
    XSession::stop();
}

TEST(KVUtilitiesEnvironmentTest, ProcessorLetterNamesTheArchitecture) {
    // clang-format off
    const std::tuple<const char *, bool, const char *> cases[] = {  // type, translated, letter
        {"x86_64", false, "I"}, {"x86_64", true, "A"}, {"arm64", false, "A"},
        {"armv7l", false, "A"}, {"aarch64", false, "A"}, {"riscv64", false, "riscv64"},
        {"", false, ""}};
    // clang-format on
    for (const auto &[type, translated, letter] : cases)
        EXPECT_EQ(processorTypeLetter(QString::fromLatin1(type), translated),
                  QString::fromLatin1(letter))
            << type << " " << translated;
    EXPECT_FALSE(KVUtilities::rosettaMode());
    EXPECT_EQ(KVUtilities::processorTypeLetter(),
              processorTypeLetter(KVUtilities::processorType(), false));
}

TEST(KVUtilitiesEnvironmentTest, IdentityFilesGiveTheirFirstReadableText) {
    const QString dir = TestEnvironment::makeTempDir(QStringLiteral("identity"));
    const QString missing = dir + "/missing", blank = dir + "/blank", serial = dir + "/serial",
                  fifo = dir + "/fifo", huge = dir + "/huge", latin1 = dir + "/latin1";
    ASSERT_TRUE(TestEnvironment::writeFile(blank, " \n\t\n"));
    ASSERT_TRUE(TestEnvironment::writeFile(serial, "  C02X1234\n"));
    ASSERT_TRUE(TestEnvironment::writeFile(huge, QByteArray(10000, 'z')));
    ASSERT_TRUE(TestEnvironment::writeFile(latin1, "S\xe9rie\n"));
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    // clang-format off
    const std::pair<QStringList, QString> cases[] = {
        {{serial}, QStringLiteral("C02X1234")},
        {{missing, blank, dir, fifo, serial}, QStringLiteral("C02X1234")},
        {{missing, blank, dir, fifo}, QString()}, {{}, QString()}, {{huge}, QString(4096, u'z')},
        {{latin1}, QStringLiteral("S\uFFFDrie")}};
    // clang-format on
    for (const auto &[paths, expected] : cases) {
        const QString text = firstReadableText(paths);
        EXPECT_EQ(text, expected) << qPrintable(paths.join(u' '));
        EXPECT_EQ(text.isNull(), expected.isNull()) << qPrintable(paths.join(u' '));
    }
    // The machine id stands in where the firmware's serial is missing or
    // for root only; once found it is kept.
    const QString id = KVUtilities::uniqueComputerID();
    EXPECT_FALSE(id.isEmpty());
    EXPECT_EQ(KVUtilities::uniqueComputerID().constData(), id.constData());
}

TEST(KVUtilitiesEnvironmentTest, TracerInTheProcessStatusAndDebuggingWhileTraced) {
    // clang-format off
    const std::pair<QByteArray, bool> cases[] = {
        {"Name:\tx\nTracerPid:\t0\nUid:\t0\n", false},
        {"Name:\tx\nTracerPid:\t4242\nUid:\t0\n", true}, {"Name:\tx\nTracerPid:\t77", true},
        {"Name:\tx\nTracerPid:\tjunk\n", false}, {"Name:\tx\nTracerPid:\n", false},
        {"Name:\tx\n", false}, {"", false}};
    // clang-format on
    for (const auto &[status, traced] : cases)
        EXPECT_EQ(statusShowsTracer(status), traced) << status.data();
    // A child that this process traces sees a debugger; an untraced one does not.
    for (const bool traced : {false, true}) {
        SCOPED_TRACE(traced ? "traced" : "untraced");
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (traced && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(3);
            _exit(KVUtilities::debugging() ? 1 : 2);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), traced ? 1 : 2);
    }
}

}  // namespace

#include "KVUtilitiesEnvironmentTest.moc"
