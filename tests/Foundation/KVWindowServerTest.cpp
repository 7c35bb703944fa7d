// Real windows of kvtest_window processes under Xvfb, read back with the X tools.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QProcess>
#include <QTest>
#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "KVWindowServer.h"
#include "XSession.h"

namespace {
constexpr int kTimeoutMs = 5000;

QString run(const QString &program, const QStringList &arguments) {
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(kTimeoutMs);
    return QString::fromLocal8Bit(process.readAllStandardOutput());
}
// The window ids ("0x…") an xprop line lists after its '#'.
QStringList windowIds(const QStringList &xpropArguments) {
    const QString listed = run("xprop", xpropArguments).section('#', 1);
    return listed.simplified().split(", ", Qt::SkipEmptyParts);
}
// Bottom to top.
QStringList stackingOrder() { return windowIds({"-root", "_NET_CLIENT_LIST_STACKING"}); }
QStringList windowsOf(pid_t pid) {
    QStringList windows;
    for (const QString &id : stackingOrder())
        if (run("xprop", {"-id", id, "_NET_WM_PID"}).section('=', 1).trimmed().toInt() == pid)
            windows << id;
    return windows;
}
// "Normal" or "Iconic", as ICCCM's WM_STATE says.
QString windowState(const QString &id) {
    return run("xprop", {"-id", id, "WM_STATE"}).section("window state: ", 1).section('\n', 0, 0);
}
bool becomesFront(pid_t pid) {
    return QTest::qWaitFor([&] { return KVWindowServer::frontProcessID() == pid; }, kTimeoutMs);
}
}  // namespace

class KVWindowServerTest : public testing::Test {
protected:
    static void TearDownTestSuite() { XSession::stop(); }
    void SetUp() override { ASSERT_EQ(XSession::start(), ""); }  // or why not
    void TearDown() override {
        for (auto &child : m_children) XSession::stop(child);
    }
    // A process showing `count` windows, listed by the window manager; 0 on failure.
    pid_t startWindows(const QString &title, int count = 1) {
        QString error;
        auto &child = m_children.emplace_back(XSession::startWindowProgram(
            KV_TEST_WINDOW, {"--title", title, "--windows", QString::number(count)}, &error));
        EXPECT_TRUE(child) << "kvtest_window did not get ready: " << qPrintable(error);
        if (!child) return 0;
        const pid_t pid = pid_t(child->processId());
        EXPECT_TRUE(QTest::qWaitFor([&] { return windowsOf(pid).size() == count; }, kTimeoutMs));
        return pid;
    }

private:
    std::vector<std::unique_ptr<QProcess>> m_children;
};

// A's two windows and B's one.
TEST_F(KVWindowServerTest, BringsForwardAndHidesTheWindowsOfAnotherProcess) {
    const pid_t a = startWindows("A", 2);
    const pid_t b = startWindows("B");
    ASSERT_TRUE(a && b);
    const QStringList windowsOfA = windowsOf(a);
    const QString windowOfB = windowsOf(b).value(0);
    ASSERT_EQ(windowsOfA.size(), 2);
    // A process without windows here (the parent) is not found.
    EXPECT_FALSE(KVWindowServer::bringProcessToFront(getppid(), false));
    // With A behind B, front window only brings A's top-most alone forward;
    // all windows brings both, the top-most staying on top and active.
    for (bool frontWindowOnly : {true, false}) {
        ASSERT_TRUE(KVWindowServer::bringProcessToFront(b, false));
        ASSERT_TRUE(becomesFront(b));
        EXPECT_TRUE(KVWindowServer::bringProcessToFront(a, frontWindowOnly));
        EXPECT_TRUE(becomesFront(a));
        EXPECT_TRUE(QTest::qWaitFor(
            [&] {
                return windowIds({"-root", "_NET_ACTIVE_WINDOW"}).value(0) == windowsOfA[1];
            },
            kTimeoutMs));
        EXPECT_EQ(stackingOrder(), frontWindowOnly
                                       ? QStringList({windowsOfA[0], windowOfB, windowsOfA[1]})
                                       : QStringList({windowOfB, windowsOfA[0], windowsOfA[1]}));
    }
    // Hiding minimizes all of A's windows, none of B's.
    EXPECT_TRUE(KVWindowServer::setProcessHidden(a, true));
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return windowState(windowsOfA[0]) + windowState(windowsOfA[1]) == "IconicIconic"; },
        kTimeoutMs));
    EXPECT_EQ(windowState(windowOfB), "Normal");
}

// Without a reachable X display, or in a Wayland session even beside an X
// server, nothing works; back on the display all works again.
TEST_F(KVWindowServerTest, ConnectsOnlyInAnX11SessionAndReconnects) {
    const pid_t a = startWindows("A");
    ASSERT_TRUE(a);
    ASSERT_TRUE(becomesFront(a));  // opens the connection that must not be used any more
    const std::pair<const char *, std::optional<QByteArray>> sessions[] = {
        {"DISPLAY", ":4095"}, {"XDG_SESSION_TYPE", "wayland"}};
    for (const auto &[name, value] : sessions) {
        const ScopedEnv session(name, value);
        EXPECT_FALSE(KVWindowServer::isAvailable()) << name;
        EXPECT_EQ(KVWindowServer::frontProcessID(), 0) << name;
        EXPECT_FALSE(KVWindowServer::bringProcessToFront(a, false)) << name;
    }
    EXPECT_EQ(KVWindowServer::frontProcessID(), a);

    // Another name for the same display opens a new connection; racing threads all get it.
    const ScopedEnv sameDisplay("DISPLAY", (XSession::display() + ".0").toLocal8Bit());
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) right += KVWindowServer::frontProcessID() == a;
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(right, 8 * 20);
}
