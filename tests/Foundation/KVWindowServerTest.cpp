#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <QApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>
#include <QWidget>
#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "KVWindowServer.h"
#include "TestEnvironment.h"

namespace {

using Window = quint32;
constexpr int kTimeoutMs = 5000;

// Ends a process the test started: SIGTERM, then SIGKILL if it lingers.
void stop(std::unique_ptr<QProcess> &process) {
    if (!process) return;
    if (process->state() != QProcess::NotRunning) {
        ::kill(pid_t(process->processId()), SIGTERM);
        if (!process->waitForFinished(kTimeoutMs)) {
            ::kill(pid_t(process->processId()), SIGKILL);
            process->waitForFinished(kTimeoutMs);
        }
    }
    process.reset();
}

// An environment variable set or unset for the length of a scope.
class ScopedEnv {
public:
    ScopedEnv(const char *name, std::optional<QByteArray> value) : m_name(name) {
        if (qEnvironmentVariableIsSet(name)) m_saved = qgetenv(name);
        value ? qputenv(name, *value) : qunsetenv(name);
    }
    ~ScopedEnv() { m_saved ? qputenv(m_name, *m_saved) : qunsetenv(m_name); }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    const char *m_name;
    std::optional<QByteArray> m_saved;
};

}  // namespace

// Real windows of real processes under a real window manager: the suite
// starts its own X server (Xvfb) and window manager (openbox) once, and each
// test starts the window processes it needs (kvtest_window, on xcb).
class KVWindowServerTest : public testing::Test {
protected:
    static void SetUpTestSuite() { s_setupError = startServers(); }
    static void TearDownTestSuite() {
        stop(s_windowManager);
        stop(s_xServer);
    }

    void SetUp() override {
        ASSERT_TRUE(s_setupError.isEmpty()) << s_setupError.toStdString();
        m_env.emplace_back(std::make_unique<ScopedEnv>("DISPLAY", s_display.toLocal8Bit()));
        m_env.emplace_back(std::make_unique<ScopedEnv>("WAYLAND_DISPLAY", std::nullopt));
        m_env.emplace_back(std::make_unique<ScopedEnv>("XDG_SESSION_TYPE", std::nullopt));
    }
    void TearDown() override {
        for (auto &child : m_children) stop(child);
        m_env.clear();
    }

    // Starts a process showing `count` windows and waits until they are on
    // screen; returns its pid, 0 on failure.
    pid_t startWindows(const QString &title, int count = 1) {
        auto child = std::make_unique<QProcess>();
        QProcessEnvironment env = childEnvironment();
        env.insert("QT_QPA_PLATFORM", "xcb");
        child->setProcessEnvironment(env);
        const QString log = TestEnvironment::makeTempDir("window") + "/stderr.txt";
        child->setStandardErrorFile(log);
        child->start(KV_TEST_WINDOW, {"--title", title, "--windows", QString::number(count)});
        QByteArray output;
        QDeadlineTimer deadline(10000);
        while (!output.contains("ready\n") && !deadline.hasExpired() &&
               child->waitForReadyRead(int(deadline.remainingTime())))
            output += child->readAllStandardOutput();
        const pid_t pid = pid_t(child->processId());
        m_children.push_back(std::move(child));
        if (!output.contains("ready\n")) {
            ADD_FAILURE() << "kvtest_window did not get ready: " << contents(log).toStdString();
            return 0;
        }
        // Ready means mapped; the window manager lists the windows right after.
        EXPECT_TRUE(QTest::qWaitFor([&] { return windowsOf(pid).size() == count; }, kTimeoutMs));
        return pid;
    }

    // Process A with two windows behind process B with one.
    void startTwoWindowsBehindAThird() {
        m_a = startWindows("A", 2);
        const pid_t b = startWindows("B");
        ASSERT_TRUE(m_a && b);
        ASSERT_TRUE(KVWindowServer::bringProcessToFront(b, false));
        ASSERT_TRUE(becomesFront(b));
        m_windowsOfA = windowsOf(m_a);
        m_windowOfB = windowsOf(b).value(0);
        ASSERT_EQ(m_windowsOfA.size(), 2);
    }
    pid_t m_a = 0;
    QList<Window> m_windowsOfA;
    Window m_windowOfB = 0;

    // What the window manager publishes, read with the X tools rather than
    // through the code under test.
    static QString run(const QString &program, const QStringList &arguments) {
        QProcess process;
        process.setProcessEnvironment(childEnvironment());
        process.start(program, arguments);
        process.waitForFinished(kTimeoutMs);
        return QString::fromLocal8Bit(process.readAllStandardOutput());
    }
    static QList<Window> windowIds(const QString &xpropOutput) {
        QList<Window> ids;
        const qsizetype hash = xpropOutput.indexOf('#');
        if (hash < 0) return ids;
        for (const QString &id : xpropOutput.mid(hash + 1).split(',', Qt::SkipEmptyParts))
            if (const Window window = id.trimmed().toUInt(nullptr, 16)) ids.append(window);
        return ids;
    }
    static QString window(Window id) { return "0x" + QString::number(id, 16); }
    // Bottom to top.
    static QList<Window> stackingOrder() {
        return windowIds(run("xprop", {"-root", "_NET_CLIENT_LIST_STACKING"}));
    }
    static QList<Window> windowsOf(pid_t pid) {
        QList<Window> windows;
        for (Window id : stackingOrder()) {
            const QString owner = run("xprop", {"-id", window(id), "_NET_WM_PID"});
            if (owner.section('=', 1).trimmed().toInt() == pid) windows.append(id);
        }
        return windows;
    }
    static Window activeWindow() {
        const QList<Window> ids = windowIds(run("xprop", {"-root", "_NET_ACTIVE_WINDOW"}));
        return ids.isEmpty() ? 0 : ids.first();
    }
    // "Normal" or "Iconic", as ICCCM's WM_STATE says.
    static QString windowState(Window id) {
        static const QRegularExpression state("window state: (\\w+)");
        return state.match(run("xprop", {"-id", window(id), "WM_STATE"})).captured(1);
    }
    static bool allInState(const QList<Window> &windows, const QString &state) {
        for (Window id : windows)
            if (windowState(id) != state) return false;
        return true;
    }
    static bool becomesFront(pid_t pid) {
        return QTest::qWaitFor([&] { return KVWindowServer::frontProcessID() == pid; }, kTimeoutMs);
    }

    static inline QString s_display;

private:
    static QString contents(const QString &path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
    }
    static QProcessEnvironment childEnvironment() {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("DISPLAY", s_display);
        env.remove("WAYLAND_DISPLAY");
        env.remove("XDG_SESSION_TYPE");
        return env;
    }

    // Returns why the servers could not be started, empty on success.
    static QString startServers() {
        for (const char *tool : {"Xvfb", "openbox", "xprop", "xdotool"})
            if (QStandardPaths::findExecutable(tool).isEmpty())
                return QString(
                           "%1 is not installed; scripts/install-deps installs xvfb, openbox, "
                           "xdotool and x11-utils")
                    .arg(tool);
        const QString logs = TestEnvironment::makeTempDir("xserver");

        // -displayfd lets Xvfb pick a free display and say which, once it
        // accepts connections.
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0) return "pipe failed";
        s_xServer = std::make_unique<QProcess>();
        s_xServer->setStandardOutputFile(logs + "/xvfb.txt");
        s_xServer->setStandardErrorFile(logs + "/xvfb.txt", QIODevice::Append);
        const int writeEnd = ready[1];
        s_xServer->setChildProcessModifier([writeEnd] { fcntl(writeEnd, F_SETFD, 0); });
        // -noreset: without it the server starts afresh whenever its last
        // client leaves, as the first xprop polls below do.
        s_xServer->start("Xvfb", {"-displayfd", QString::number(writeEnd), "-screen", "0",
                                  "1024x768x24", "-nolisten", "tcp", "-noreset"});
        close(ready[1]);
        QByteArray number;
        QDeadlineTimer deadline(10000);
        pollfd readable = {ready[0], POLLIN, 0};
        while (!number.contains('\n') && poll(&readable, 1, int(deadline.remainingTime())) > 0) {
            char buffer[16];
            const ssize_t n = read(ready[0], buffer, sizeof buffer);
            if (n <= 0) break;
            number.append(buffer, n);
        }
        close(ready[0]);
        if (!number.contains('\n')) return "Xvfb did not start: " + contents(logs + "/xvfb.txt");
        s_display = ":" + QString::fromLatin1(number.trimmed());

        s_windowManager = std::make_unique<QProcess>();
        s_windowManager->setProcessEnvironment(childEnvironment());
        s_windowManager->setStandardOutputFile(logs + "/openbox.txt");
        s_windowManager->setStandardErrorFile(logs + "/openbox.txt", QIODevice::Append);
        // openbox marks the root window as managed before it really manages
        // windows (a window mapped in between stays unmanaged); its startup
        // command runs once it does.
        const QString started = logs + "/openbox-started";
        s_windowManager->start("openbox", {"--sm-disable", "--startup", "touch " + started});
        const bool running = QTest::qWaitFor([&] { return QFile::exists(started); }, 10000);
        if (!running) return "openbox did not start: " + contents(logs + "/openbox.txt");
        return {};
    }

    static inline std::unique_ptr<QProcess> s_xServer;
    static inline std::unique_ptr<QProcess> s_windowManager;
    static inline QString s_setupError;
    std::vector<std::unique_ptr<QProcess>> m_children;
    std::vector<std::unique_ptr<ScopedEnv>> m_env;
};

TEST_F(KVWindowServerTest, FrontProcessFollowsTheProcessBroughtToTheFront) {
    const pid_t a = startWindows("A");
    const pid_t b = startWindows("B");
    ASSERT_TRUE(a && b);
    ASSERT_TRUE(KVWindowServer::isAvailable());
    for (pid_t pid : {a, b, a}) {
        EXPECT_TRUE(KVWindowServer::bringProcessToFront(pid, false));
        EXPECT_TRUE(becomesFront(pid)) << "front is " << KVWindowServer::frontProcessID();
        // The window manager agrees.
        EXPECT_EQ(run("xdotool", {"getactivewindow", "getwindowpid"}).trimmed().toInt(), pid);
    }
}

TEST_F(KVWindowServerTest, FrontWindowOnlyActivatesTheTopMostWindowAndLeavesTheOthersBehind) {
    ASSERT_NO_FATAL_FAILURE(startTwoWindowsBehindAThird());

    EXPECT_TRUE(KVWindowServer::bringProcessToFront(m_a, true));
    EXPECT_TRUE(becomesFront(m_a));
    EXPECT_EQ(activeWindow(), m_windowsOfA.last());
    EXPECT_EQ(stackingOrder(), (QList<Window>{m_windowsOfA[0], m_windowOfB, m_windowsOfA[1]}));
}

TEST_F(KVWindowServerTest, BringingAllWindowsRaisesEveryWindowOfTheProcess) {
    ASSERT_NO_FATAL_FAILURE(startTwoWindowsBehindAThird());

    EXPECT_TRUE(KVWindowServer::bringProcessToFront(m_a, false));
    EXPECT_TRUE(becomesFront(m_a));
    // The top-most stays on top and active; the other one comes forward too.
    EXPECT_TRUE(QTest::qWaitFor([&] { return activeWindow() == m_windowsOfA[1]; }, kTimeoutMs));
    EXPECT_EQ(stackingOrder(), (QList<Window>{m_windowOfB, m_windowsOfA[0], m_windowsOfA[1]}));
}

TEST_F(KVWindowServerTest, HidingMinimizesEveryWindowAndShowingBringsThemBack) {
    const pid_t a = startWindows("A", 2);
    const pid_t b = startWindows("B");
    ASSERT_TRUE(a && b);
    const QList<Window> windowsOfA = windowsOf(a);
    ASSERT_EQ(windowsOfA.size(), 2);

    EXPECT_TRUE(KVWindowServer::setProcessHidden(a, true));
    EXPECT_TRUE(QTest::qWaitFor([&] { return allInState(windowsOfA, "Iconic"); }, kTimeoutMs));
    EXPECT_EQ(windowState(windowsOf(b).value(0)), "Normal");
    EXPECT_NE(KVWindowServer::frontProcessID(), a);

    EXPECT_TRUE(KVWindowServer::setProcessHidden(a, false));
    EXPECT_TRUE(QTest::qWaitFor([&] { return allInState(windowsOfA, "Normal"); }, kTimeoutMs));
}

TEST_F(KVWindowServerTest, BringingAHiddenProcessToTheFrontShowsItAgain) {
    const pid_t a = startWindows("A");
    const pid_t b = startWindows("B");
    ASSERT_TRUE(a && b);
    const QList<Window> windowsOfA = windowsOf(a);
    ASSERT_TRUE(KVWindowServer::setProcessHidden(a, true));
    ASSERT_TRUE(QTest::qWaitFor([&] { return allInState(windowsOfA, "Iconic"); }, kTimeoutMs));

    EXPECT_TRUE(KVWindowServer::bringProcessToFront(a, true));
    EXPECT_TRUE(becomesFront(a));
    EXPECT_EQ(windowState(windowsOfA.value(0)), "Normal");
}

TEST_F(KVWindowServerTest, AProcessWithoutWindowsIsNotFound) {
    const pid_t a = startWindows("A");
    ASSERT_TRUE(a);
    // The parent (the shell or test runner) has no window on this display.
    for (pid_t pid : {getppid(), pid_t(0), pid_t(-1)}) {
        EXPECT_FALSE(KVWindowServer::bringProcessToFront(pid, false)) << pid;
        EXPECT_FALSE(KVWindowServer::bringProcessToFront(pid, true)) << pid;
        EXPECT_FALSE(KVWindowServer::setProcessHidden(pid, true)) << pid;
        EXPECT_FALSE(KVWindowServer::setProcessHidden(pid, false)) << pid;
    }
    EXPECT_TRUE(becomesFront(a));
}

TEST_F(KVWindowServerTest, WithoutADisplayThereIsNoFrontProcessAndRequestsDoNothing) {
    const pid_t a = startWindows("A");
    ASSERT_TRUE(a);
    ASSERT_TRUE(becomesFront(a));  // opens the connection that must not be used any more
    {
        ScopedEnv noDisplay("DISPLAY", std::nullopt);
        EXPECT_FALSE(KVWindowServer::isAvailable());
        EXPECT_EQ(KVWindowServer::frontProcessID(), 0);
        EXPECT_FALSE(KVWindowServer::bringProcessToFront(a, false));
        EXPECT_FALSE(KVWindowServer::setProcessHidden(a, true));
    }
    {
        ScopedEnv unreachable("DISPLAY", ":4095");
        EXPECT_FALSE(KVWindowServer::isAvailable());
        EXPECT_EQ(KVWindowServer::frontProcessID(), 0);
        EXPECT_FALSE(KVWindowServer::setProcessHidden(a, true));
    }
    // Back on the display: it works again, and nothing was hidden meanwhile.
    EXPECT_TRUE(KVWindowServer::isAvailable());
    EXPECT_EQ(KVWindowServer::frontProcessID(), a);
    QTest::qWait(200);
    EXPECT_EQ(windowState(windowsOf(a).value(0)), "Normal");
}

TEST_F(KVWindowServerTest, AWaylandSessionHasNoFrontProcess) {
    const pid_t a = startWindows("A");
    ASSERT_TRUE(a);
    {
        ScopedEnv wayland("WAYLAND_DISPLAY", "wayland-0");
        ScopedEnv noDisplay("DISPLAY", std::nullopt);
        EXPECT_FALSE(KVWindowServer::isAvailable());
        EXPECT_EQ(KVWindowServer::frontProcessID(), 0);
        EXPECT_FALSE(KVWindowServer::bringProcessToFront(a, false));
    }
    {
        // Even with an X server for older programs beside it.
        ScopedEnv session("XDG_SESSION_TYPE", "wayland");
        EXPECT_FALSE(KVWindowServer::isAvailable());
        EXPECT_EQ(KVWindowServer::frontProcessID(), 0);
        EXPECT_FALSE(KVWindowServer::bringProcessToFront(a, false));
        EXPECT_FALSE(KVWindowServer::setProcessHidden(a, true));
    }
    EXPECT_EQ(KVWindowServer::frontProcessID(), a);
}

TEST_F(KVWindowServerTest, ThreadsOpeningTheConnectionTogetherAllGetAnswers) {
    const pid_t a = startWindows("A");
    ASSERT_TRUE(a);
    ASSERT_TRUE(becomesFront(a));
    // Another name for the same display makes the next calls open a new connection.
    ScopedEnv sameDisplay("DISPLAY", (s_display + ".0").toLocal8Bit());
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i)
                if (KVWindowServer::frontProcessID() == a) ++right;
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(right, 8 * 20);
}

// The calling process's own windows go through Qt (this test process runs on
// Qt's offscreen platform, so the window manager does not even see them).
TEST_F(KVWindowServerTest, OwnWindowsAreMinimizedAndShownThroughQt) {
    EXPECT_FALSE(KVWindowServer::bringProcessToFront(getpid(), false));  // none visible yet
    QWidget first, second;
    first.show();
    second.showMaximized();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&second));

    EXPECT_TRUE(KVWindowServer::setProcessHidden(getpid(), true));
    EXPECT_TRUE(first.isMinimized());
    EXPECT_TRUE(second.isMinimized());

    EXPECT_TRUE(KVWindowServer::bringProcessToFront(getpid(), false));
    EXPECT_FALSE(first.isMinimized());
    EXPECT_FALSE(second.isMinimized());
    EXPECT_TRUE(second.isMaximized());
    EXPECT_TRUE(QTest::qWaitFor([&] { return QApplication::activeWindow() != nullptr; }));
}

TEST_F(KVWindowServerTest, OwnWindowsCanBeHiddenFromAWorkerThread) {
    QWidget window;
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    std::atomic<int> result = -1;
    std::thread worker([&] { result = KVWindowServer::setProcessHidden(getpid(), true); });
    // The request runs on this (the GUI) thread, so keep its events flowing.
    EXPECT_TRUE(QTest::qWaitFor([&] { return result != -1; }, kTimeoutMs));
    worker.join();
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(window.isMinimized());
}
