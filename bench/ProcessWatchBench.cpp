// What following the desktop's processes costs. Two measurements:
//  1. idle cost: processor time and event-loop wake-ups of the whole program
//     while it follows launches, ends, front switches and the clipboard on a
//     desktop where nothing happens, as a share of one core;
//  2. latency: from the moment a child process maps a window (it stamps the
//     monotonic clock) to the delivery of KVProcessChangeNotification
//     "started", split at the moment the window manager lists the window;
//     repeated, median / p95 / max.
// Needs an X display with a window manager, for example:
//   xvfb-run -a sh -c 'openbox & sleep 1; process_watch_bench 60'
#include <sys/resource.h>
#include <sys/socket.h>
#include <xcb/xcb.h>

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QProcess>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "KVNotificationCenter.h"
#include "KVProcess.h"
#include "KVUtilities.h"
#include "KVWindowServer.h"

namespace {

constexpr int kRounds = 50;

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs the event loop until the condition holds; false after ten seconds.
bool runUntil(const std::function<bool()> &condition) {
    const int64_t deadline = nanoseconds() + 10'000'000'000;
    while (!condition()) {
        if (nanoseconds() > deadline) return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

void report(const char *what, std::vector<double> milliseconds) {
    std::sort(milliseconds.begin(), milliseconds.end());
    std::printf("  %-26s median %7.2f ms, p95 %7.2f ms, max %7.2f ms\n", what, median(milliseconds),
                milliseconds[milliseconds.size() * 95 / 100], milliseconds.back());
}

// When the window manager changed its client list, seen by a bare xcb
// client on a thread of its own: the part of the delay that is not the
// library's.
class ClientListStamps {
public:
    ~ClientListStamps() {
        if (m_thread.joinable()) {
            // Ends the thread's wait; the connection goes once nobody uses it.
            shutdown(xcb_get_file_descriptor(m_c), SHUT_RDWR);
            m_thread.join();
        }
        if (m_c) xcb_disconnect(m_c);
    }
    bool start() {
        m_c = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(m_c)) return false;
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(m_c)).data->root;
        const char *name = "_NET_CLIENT_LIST";
        xcb_intern_atom_reply_t *atom = xcb_intern_atom_reply(
            m_c, xcb_intern_atom(m_c, 0, uint16_t(strlen(name)), name), nullptr);
        if (!atom) return false;
        m_atom = atom->atom;
        free(atom);
        const uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_change_window_attributes(m_c, root, XCB_CW_EVENT_MASK, &mask);
        xcb_flush(m_c);
        m_thread = std::thread([this] {
            while (xcb_generic_event_t *event = xcb_wait_for_event(m_c)) {
                const int64_t now = nanoseconds();
                const auto *notify = reinterpret_cast<xcb_property_notify_event_t *>(event);
                if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY &&
                    notify->atom == m_atom) {
                    const std::lock_guard<std::mutex> lock(m_mutex);
                    m_stamps.push_back(now);
                }
                free(event);
            }
        });
        return true;
    }
    int64_t firstAfter(int64_t moment) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const int64_t stamp : m_stamps)
            if (stamp >= moment) return stamp;
        return moment;
    }

private:
    xcb_connection_t *m_c = nullptr;
    xcb_atom_t m_atom = XCB_NONE;
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<int64_t> m_stamps;
};

}  // namespace

int main(int argc, char **argv) {
    QApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    if (!KVWindowServer::isAvailable()) {
        std::fputs("no X display\n", stderr);
        return 1;
    }
    // The first notification delivered once the watcher has counted the
    // launch (or the end): a "started" may be coalesced into a change that
    // was still waiting.
    int countBefore = 0;
    int64_t deliveredAt = 0;
    KVNotificationCenter::defaultCenter().addObserver(
        KVProcessChangeNotification, KVProcess::classObject(), [&](const KVNotification &) {
            if (deliveredAt == 0 && KVProcess::applicationLaunchEndCount() > countBefore)
                deliveredAt = nanoseconds();
        });
    const auto expectChange = [&] {
        countBefore = KVProcess::applicationLaunchEndCount();
        deliveredAt = 0;
    };
    KVProcess::installNotifications();
    // Starts the clipboard's count and, a second later, the front-process
    // watcher of the clipboard bookkeeping.
    KVUtilities::clipboardPublisherProcess();

    ClientListStamps listing;
    if (!listing.start()) {
        std::fputs("cannot follow the client list\n", stderr);
        return 1;
    }
    std::vector<double> total, windowManager, library;
    for (int round = 0; round < kRounds; ++round) {
        QProcess child;
        expectChange();
        child.start(QCoreApplication::applicationDirPath() + "/process_watch_bench_child");
        if (!runUntil([&] { return child.canReadLine() && deliveredAt != 0; })) {
            std::fputs("the window's launch was not reported\n", stderr);
            return 1;
        }
        const int64_t mapped = child.readLine().trimmed().toLongLong();
        const int64_t listed = listing.firstAfter(mapped);
        total.push_back(double(deliveredAt - mapped) / 1e6);
        windowManager.push_back(double(listed - mapped) / 1e6);
        library.push_back(double(deliveredAt - listed) / 1e6);
        expectChange();
        child.kill();
        child.waitForFinished();
        runUntil([&] { return deliveredAt != 0; });
    }
    std::printf("window mapped -> \"started\" delivered, %d rounds:\n", kRounds);
    report("in all", total);
    report("window manager lists it", windowManager);
    report("library reads and posts", library);

    int wakeUps = 0;
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake,
                     [&wakeUps] { ++wakeUps; });
    // The watcher of the clipboard bookkeeping starts a second after the
    // first query: the idle time starts after it.
    QTimer::singleShot(1500, &app, &QCoreApplication::quit);
    app.exec();
    const double before = cpuSeconds();
    wakeUps = 0;
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    app.exec();
    std::printf(
        "following an idle desktop for %d s: %.4f%% of one core, %d wake-ups of the "
        "event loop (the closing timer's included)\n",
        seconds, 100.0 * (cpuSeconds() - before) / seconds, wakeUps);
    return 0;
}
