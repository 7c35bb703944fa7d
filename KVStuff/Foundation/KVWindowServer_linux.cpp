#include <unistd.h>
#include <xcb/screensaver.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <QApplication>
#include <QSocketNotifier>
#include <QThread>
#include <QWidget>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <vector>

#include "KVWindowServer.h"
#include "KVWindowServer_p.h"

namespace KVWindowServerPrivate {

namespace {
const char *const kAtomNames[AtomCount] = {
    "_NET_ACTIVE_WINDOW", "_NET_WM_PID",   "_NET_CLIENT_LIST_STACKING", "_NET_CLIENT_LIST",
    "WM_CHANGE_STATE",    "_NET_WM_STATE", "_NET_WM_STATE_FULLSCREEN",  "CLIPBOARD"};
}  // namespace

ConnectionRef openConnection(const QByteArray &display) {
    auto connection = std::make_shared<Connection>();
    connection->display = display;
    int screenNumber = 0;
    connection->xcb = xcb_connect(display.constData(), &screenNumber);
    if (xcb_connection_has_error(connection->xcb)) return nullptr;

    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection->xcb));
    for (int i = 0; i < screenNumber && screens.rem > 0; ++i) xcb_screen_next(&screens);
    if (screens.rem == 0) return nullptr;
    connection->root = screens.data->root;

    xcb_intern_atom_cookie_t cookies[AtomCount];
    for (int i = 0; i < AtomCount; ++i)
        cookies[i] = xcb_intern_atom(connection->xcb, 0, strlen(kAtomNames[i]), kAtomNames[i]);
    for (int i = 0; i < AtomCount; ++i) {
        xcb_generic_error_t *error = nullptr;
        xcb_intern_atom_reply_t *reply = xcb_intern_atom_reply(connection->xcb, cookies[i], &error);
        free(error);
        if (!reply) return nullptr;
        connection->atoms[i] = reply->atom;
        free(reply);
    }
    return connection;
}

// One connection for all threads (xcb itself is thread-safe), opened on first
// use. It is replaced when $DISPLAY changes or the connection broke, e.g.
// because the X server restarted; users still holding the old one finish
// with it.
ConnectionRef sharedConnection() {
    if (qgetenv("XDG_SESSION_TYPE") == "wayland") return nullptr;
    const QByteArray display = qgetenv("DISPLAY");
    if (display.isEmpty()) return nullptr;
    static std::mutex mutex;
    static ConnectionRef shared;
    std::lock_guard<std::mutex> lock(mutex);
    if (!shared || shared->display != display || xcb_connection_has_error(shared->xcb))
        shared = openConnection(display);
    return shared;
}

xcb_get_property_cookie_t requestProperty(const Connection &c, xcb_window_t window, Atom property,
                                          xcb_atom_t type, uint32_t maxValues) {
    return xcb_get_property(c.xcb, 0, window, c.atoms[property], type, 0, maxValues);
}

std::vector<uint32_t> propertyValues(const Connection &c, xcb_get_property_cookie_t cookie) {
    std::vector<uint32_t> values;
    xcb_generic_error_t *error = nullptr;
    xcb_get_property_reply_t *reply = xcb_get_property_reply(c.xcb, cookie, &error);
    free(error);
    if (!reply) return values;
    if (reply->format == 32) {
        const auto *data = static_cast<const uint32_t *>(xcb_get_property_value(reply));
        values.assign(data, data + xcb_get_property_value_length(reply) / 4);
    }
    free(reply);
    return values;
}

std::vector<pid_t> windowOwners(const Connection &c, const std::vector<uint32_t> &windows) {
    // All questions first, then all answers: one round trip instead of one per window.
    std::vector<xcb_get_property_cookie_t> cookies;
    cookies.reserve(windows.size());
    for (uint32_t window : windows)
        cookies.push_back(requestProperty(c, window, NetWmPid, XCB_ATOM_CARDINAL));
    std::vector<pid_t> owners;
    owners.reserve(windows.size());
    for (const xcb_get_property_cookie_t &cookie : cookies) {
        const std::vector<uint32_t> owner = propertyValues(c, cookie);
        owners.push_back(owner.empty() ? 0 : pid_t(owner[0]));
    }
    return owners;
}

xcb_window_t activeWindow(const Connection &c) {
    const std::vector<uint32_t> active =
        propertyValues(c, requestProperty(c, c.root, NetActiveWindow, XCB_ATOM_WINDOW));
    return active.empty() ? XCB_NONE : active[0];
}

bool followEvents(const ConnectionRef &events, std::function<void()> readEvents) {
    QCoreApplication *app = QCoreApplication::instance();
    if (!app || !events) return false;
    xcb_flush(events->xcb);
    QMetaObject::invokeMethod(
        app,
        [events, readEvents = std::move(readEvents)] {
            auto *notifier =
                new QSocketNotifier(xcb_get_file_descriptor(events->xcb), QSocketNotifier::Read,
                                    QCoreApplication::instance());
            const auto handle = [events, readEvents, notifier] {
                readEvents();
                xcb_flush(events->xcb);
                // A broken connection stays readable for ever.
                if (xcb_connection_has_error(events->xcb)) notifier->setEnabled(false);
            };
            QObject::connect(notifier, &QSocketNotifier::activated, notifier, handle);
            // Events read while setting up wait in xcb's queue, where the
            // notifier cannot see them.
            handle();
        },
        QThread::currentThread() == app->thread() ? Qt::DirectConnection : Qt::QueuedConnection);
    return true;
}

}  // namespace KVWindowServerPrivate

using namespace KVWindowServerPrivate;

namespace {

// More states than any window manager sets at once.
constexpr uint32_t kMaxStates = 64;

constexpr uint32_t kIconicState = 3;
// Requests from a pager or task switcher carry out what the user asked for,
// so window managers do not apply their focus-stealing prevention to them.
constexpr uint32_t kSourcePager = 2;

// The process's managed top-level windows, bottom to top when the window
// manager publishes the stacking order.
std::vector<xcb_window_t> windowsOf(const Connection &c, pid_t pid) {
    std::vector<uint32_t> clients = propertyValues(
        c, requestProperty(c, c.root, NetClientListStacking, XCB_ATOM_WINDOW, kMaxWindows));
    if (clients.empty())
        clients = propertyValues(
            c, requestProperty(c, c.root, NetClientList, XCB_ATOM_WINDOW, kMaxWindows));
    const std::vector<pid_t> owners = windowOwners(c, clients);
    std::vector<xcb_window_t> windows;
    for (size_t i = 0; i < clients.size(); ++i) {
        if (owners[i] == pid) windows.push_back(clients[i]);
    }
    return windows;
}

// Client messages to the window manager go to the root window, as EWMH and
// ICCCM prescribe.
void sendToWindowManager(const Connection &c, xcb_window_t window, Atom type,
                         std::initializer_list<uint32_t> data) {
    xcb_client_message_event_t event = {};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = c.atoms[type];
    std::copy(data.begin(), data.end(), event.data.data32);
    xcb_send_event(c.xcb, 0, c.root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char *>(&event));
}

// Mapping a minimized window is how ICCCM takes it out of the iconic state;
// for a window that is shown it does nothing.
void unminimize(const Connection &c, xcb_window_t window) { xcb_map_window(c.xcb, window); }

void activate(const Connection &c, xcb_window_t window) {
    sendToWindowManager(c, window, NetActiveWindow, {kSourcePager, XCB_CURRENT_TIME, XCB_NONE});
}

bool flush(const Connection &c) {
    xcb_flush(c.xcb);
    // Nothing selects events on this connection; what arrives are errors of
    // requests for windows that went away meanwhile. Drop them so they do not pile up.
    while (xcb_generic_event_t *event = xcb_poll_for_event(c.xcb)) free(event);
    return !xcb_connection_has_error(c.xcb);
}

// The calling process's windows belong to Qt, which keeps its own record of
// their state; changing them behind its back through the window manager
// would leave that record wrong. So they go through Qt, on the GUI thread.
namespace own {

bool isQtApplication() { return qobject_cast<QApplication *>(QCoreApplication::instance()); }

QList<QWidget *> visibleWindows() {
    QList<QWidget *> windows;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        const Qt::WindowType type = widget->windowType();
        if (widget->isWindow() && widget->isVisible() && type != Qt::Desktop && type != Qt::Popup &&
            type != Qt::ToolTip)
            windows.append(widget);
    }
    return windows;
}

// Keeps a maximized window maximized, which showNormal() would not.
void setMinimized(QWidget *window, bool minimized) {
    const Qt::WindowStates state = window->windowState();
    window->setWindowState(minimized ? state | Qt::WindowMinimized : state & ~Qt::WindowMinimized);
}

bool onGuiThread(const std::function<bool()> &work) {
    QCoreApplication *app = QCoreApplication::instance();
    if (QThread::currentThread() == app->thread()) return work();
    auto result = std::make_shared<std::promise<bool>>();
    std::future<bool> answer = result->get_future();
    QMetaObject::invokeMethod(
        app, [result, work] { result->set_value(work()); }, Qt::QueuedConnection);
    // The GUI thread might be waiting for this very thread: rather than hang,
    // give up after a while (the request is still carried out later).
    if (answer.wait_for(std::chrono::seconds(2)) != std::future_status::ready) return false;
    return answer.get();
}

bool bringToFront(bool frontWindowOnly) {
    return onGuiThread([frontWindowOnly] {
        const QList<QWidget *> windows = visibleWindows();
        if (windows.isEmpty()) return false;
        QWidget *front = QApplication::activeWindow();
        if (!windows.contains(front)) front = windows.last();
        if (!frontWindowOnly) {
            for (QWidget *window : windows) {
                if (window == front) continue;
                setMinimized(window, false);
                window->raise();
            }
        }
        setMinimized(front, false);
        front->raise();
        front->activateWindow();
        return true;
    });
}

bool setHidden(bool hidden) {
    return onGuiThread([hidden] {
        const QList<QWidget *> windows = visibleWindows();
        for (QWidget *window : windows) setMinimized(window, hidden);
        return !windows.isEmpty();
    });
}

}  // namespace own

}  // namespace

bool KVWindowServer::isAvailable() { return sharedConnection() != nullptr; }

pid_t KVWindowServer::frontProcessID() {
    const ConnectionRef c = sharedConnection();
    const xcb_window_t active = c ? activeWindow(*c) : XCB_NONE;
    if (active == XCB_NONE) return 0;
    const std::vector<uint32_t> owner =
        propertyValues(*c, requestProperty(*c, active, NetWmPid, XCB_ATOM_CARDINAL));
    return owner.empty() ? 0 : pid_t(owner[0]);
}

bool KVWindowServer::isFrontWindowFullScreen() {
    const ConnectionRef c = sharedConnection();
    const xcb_window_t active = c ? activeWindow(*c) : XCB_NONE;
    if (active == XCB_NONE) return false;
    const std::vector<uint32_t> states =
        propertyValues(*c, requestProperty(*c, active, NetWmState, XCB_ATOM_ATOM, kMaxStates));
    return std::find(states.begin(), states.end(), c->atoms[NetWmStateFullScreen]) != states.end();
}

bool KVWindowServer::bringProcessToFront(pid_t pid, bool frontWindowOnly) {
    const ConnectionRef c = sharedConnection();
    if (!c || pid <= 0) return false;
    if (pid == getpid() && own::isQtApplication()) return own::bringToFront(frontWindowOnly);
    std::vector<xcb_window_t> windows = windowsOf(*c, pid);
    if (windows.empty()) return false;
    if (frontWindowOnly) windows.erase(windows.begin(), windows.end() - 1);
    // Activating each window in turn, bottom to top, is what clicking them in
    // a task switcher does: every window manager raises and un-minimizes on
    // it, and the last one, the top-most, ends up active.
    for (xcb_window_t window : windows) {
        unminimize(*c, window);
        activate(*c, window);
    }
    return flush(*c);
}

bool KVWindowServer::setProcessHidden(pid_t pid, bool hidden) {
    const ConnectionRef c = sharedConnection();
    if (!c || pid <= 0) return false;
    if (pid == getpid() && own::isQtApplication()) return own::setHidden(hidden);
    const std::vector<xcb_window_t> windows = windowsOf(*c, pid);
    if (windows.empty()) return false;
    for (xcb_window_t window : windows) {
        if (hidden)
            sendToWindowManager(*c, window, WmChangeState, {kIconicState});
        else
            unminimize(*c, window);
    }
    return flush(*c);
}

std::optional<uint32_t> KVWindowServer::idleMilliseconds() {
    const ConnectionRef c = sharedConnection();
    if (!c) return std::nullopt;
    const xcb_query_extension_reply_t *extension =
        xcb_get_extension_data(c->xcb, &xcb_screensaver_id);
    if (!extension || !extension->present) return std::nullopt;
    xcb_generic_error_t *error = nullptr;
    xcb_screensaver_query_info_reply_t *info = xcb_screensaver_query_info_reply(
        c->xcb, xcb_screensaver_query_info(c->xcb, c->root), &error);
    free(error);
    if (!info) return std::nullopt;
    const uint32_t idle = info->ms_since_user_input;
    free(info);
    return idle;
}

bool KVWindowServer::isKeyboardGrabbedElsewhere() {
    const ConnectionRef c = sharedConnection();
    if (!c) return false;
    // Asking is trying to grab it: a grab of this connection's own is given
    // back at once, so at most a key pressed in that instant is lost.
    xcb_generic_error_t *error = nullptr;
    xcb_grab_keyboard_reply_t *reply =
        xcb_grab_keyboard_reply(c->xcb,
                                xcb_grab_keyboard(c->xcb, 0, c->root, XCB_CURRENT_TIME,
                                                  XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC),
                                &error);
    free(error);
    if (!reply) return false;
    const uint8_t status = reply->status;
    free(reply);
    if (status == XCB_GRAB_STATUS_SUCCESS) {
        xcb_ungrab_keyboard(c->xcb, XCB_CURRENT_TIME);
        flush(*c);
    }
    return status == XCB_GRAB_STATUS_ALREADY_GRABBED;
}

namespace {

// Property changes of the root window (the active window) and of the active
// window (its state), on a connection of their own: the shared one drops
// every event it sees.
struct FullScreenWatch {
    ConnectionRef events;
    std::function<void(bool)> changed;
    xcb_window_t followed = XCB_NONE;

    void follow(xcb_window_t window) {
        if (window == followed) return;
        // The window left behind may be gone already; the error that brings
        // is read and dropped with the events.
        const uint32_t none = XCB_EVENT_MASK_NO_EVENT, property = XCB_EVENT_MASK_PROPERTY_CHANGE;
        if (followed != XCB_NONE)
            xcb_change_window_attributes(events->xcb, followed, XCB_CW_EVENT_MASK, &none);
        if (window != XCB_NONE)
            xcb_change_window_attributes(events->xcb, window, XCB_CW_EVENT_MASK, &property);
        followed = window;
    }

    // Whether any event read tells of a change that matters.
    bool readEvents() {
        bool relevant = false;
        while (xcb_generic_event_t *event = xcb_poll_for_event(events->xcb)) {
            if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY) {
                const auto *notify = reinterpret_cast<const xcb_property_notify_event_t *>(event);
                if (notify->window == events->root &&
                    notify->atom == events->atoms[NetActiveWindow]) {
                    follow(activeWindow(*events));
                    relevant = true;
                } else if (notify->window == followed &&
                           notify->atom == events->atoms[NetWmState]) {
                    relevant = true;
                }
            }
            free(event);
        }
        xcb_flush(events->xcb);
        return relevant;
    }
};

}  // namespace

bool KVWindowServer::watchFrontWindowFullScreen(std::function<void(bool)> changed) {
    const ConnectionRef shared = sharedConnection();
    if (!QCoreApplication::instance() || !shared) return false;
    auto watch = std::make_shared<FullScreenWatch>();
    watch->events = openConnection(shared->display);
    if (!watch->events) return false;
    watch->changed = std::move(changed);
    const uint32_t property = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(watch->events->xcb, watch->events->root, XCB_CW_EVENT_MASK,
                                 &property);
    watch->follow(activeWindow(*watch->events));
    return followEvents(watch->events, [watch] {
        if (watch->readEvents()) watch->changed(KVWindowServer::isFrontWindowFullScreen());
    });
}

namespace {

// Counts the CLIPBOARD selection's new owners; false when it cannot.
bool watchClipboard(std::atomic<int> &changes) {
    const ConnectionRef shared = sharedConnection();
    if (!QCoreApplication::instance() || !shared) return false;
    ConnectionRef events = openConnection(shared->display);
    if (!events) return false;
    const xcb_query_extension_reply_t *xfixes = xcb_get_extension_data(events->xcb, &xcb_xfixes_id);
    if (!xfixes || !xfixes->present) return false;
    // The extension ignores a client until it has said which version it speaks.
    free(xcb_xfixes_query_version_reply(
        events->xcb,
        xcb_xfixes_query_version(events->xcb, XCB_XFIXES_MAJOR_VERSION, XCB_XFIXES_MINOR_VERSION),
        nullptr));
    xcb_xfixes_select_selection_input(events->xcb, events->root, events->atoms[Clipboard],
                                      XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER);
    const uint8_t selectionNotify = xfixes->first_event + XCB_XFIXES_SELECTION_NOTIFY;
    return followEvents(events, [events, selectionNotify, &changes] {
        while (xcb_generic_event_t *event = xcb_poll_for_event(events->xcb)) {
            if ((event->response_type & 0x7f) == selectionNotify) ++changes;
            free(event);
        }
    });
}

}  // namespace

int KVWindowServer::clipboardChangeCount() {
    static std::atomic<int> changes{0};
    static std::mutex mutex;
    static bool watching = false;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (!watching) watching = watchClipboard(changes);
    }
    return changes;
}
