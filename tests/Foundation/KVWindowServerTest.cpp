// Real windows of kvtest_window processes under Xvfb, read back with xprop.
#include <gtest/gtest.h>
#include <unistd.h>

#include "FrontWindow.h"

namespace {
QString xprop(const QStringList &arguments) {
    QProcess process;
    process.start("xprop", arguments);
    process.waitForFinished(5000);
    return QString::fromLocal8Bit(process.readAllStandardOutput());
}
// The window ids a root property lists; the stacking is bottom to top.
QStringList rootWindows(const char *property) {
    return xprop({"-root", property}).section('#', 1).simplified().split(", ", Qt::SkipEmptyParts);
}
QStringList windowsOf(pid_t pid) {
    QStringList windows = rootWindows("_NET_CLIENT_LIST_STACKING");
    windows.removeIf([&](const QString &id) {
        return xprop({"-id", id, "_NET_WM_PID"}).section('=', 1).trimmed().toInt() != pid;
    });
    return windows;
}
// "Normal" or "Iconic", as ICCCM's WM_STATE says.
QString windowState(const QString &id) {
    return xprop({"-id", id, "WM_STATE"}).section("window state: ", 1).section('\n', 0, 0);
}
bool becomesFront(pid_t pid) {
    return QTest::qWaitFor([&] { return KVWindowServer::frontProcessID() == pid; }, 5000);
}
}  // namespace

// Front window only brings A's top-most alone in front of B; all windows
// brings both, the top-most staying on top and active.
TEST(KVWindowServerTest, BringsForwardAndHidesTheWindowsOfAnotherProcess) {
    ASSERT_EQ(XSession::start(), "");
    const auto a = frontWindow({"--title", "A", "--windows", "2"}), b = frontWindow({});
    const pid_t pa = pidOf(a), pb = pidOf(b);
    QStringList ofA, ofB;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return (ofA = windowsOf(pa)).size() == 2 && (ofB = windowsOf(pb)).size() == 1; },
        5000));
    EXPECT_FALSE(KVWindowServer::bringProcessToFront(getppid(), false));  // no windows here
    for (bool frontWindowOnly : {true, false}) {
        ASSERT_TRUE(KVWindowServer::bringProcessToFront(pb, false) && becomesFront(pb));
        EXPECT_TRUE(KVWindowServer::bringProcessToFront(pa, frontWindowOnly) && becomesFront(pa));
        EXPECT_TRUE(QTest::qWaitFor(
            [&] { return rootWindows("_NET_ACTIVE_WINDOW").value(0) == ofA[1]; }, 5000));
        EXPECT_EQ(rootWindows("_NET_CLIENT_LIST_STACKING"),
                  frontWindowOnly ? QStringList({ofA[0], ofB[0], ofA[1]})
                                  : QStringList({ofB[0], ofA[0], ofA[1]}));
    }
    EXPECT_TRUE(KVWindowServer::setProcessHidden(pa, true));
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return windowState(ofA[0]) + windowState(ofA[1]) == "IconicIconic"; }, 5000));
    EXPECT_EQ(windowState(ofB[0]), "Normal");
    XSession::stop();
}
