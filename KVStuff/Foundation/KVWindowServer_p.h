// The X11 connection KVWindowServer is built on, shared with the other Linux
// units that follow the desktop through X events. Not part of the library's
// interface.
#pragma once

#include <sys/types.h>
#include <xcb/xcb.h>

#include <QByteArray>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace KVWindowServerPrivate {

enum Atom {
    NetActiveWindow,
    NetWmPid,
    NetClientListStacking,
    NetClientList,
    WmChangeState,
    NetWmState,
    NetWmStateFullScreen,
    Clipboard,
    AtomCount
};

// More windows than any desktop has.
inline constexpr uint32_t kMaxWindows = 1u << 16;

struct Connection {
    QByteArray display;
    xcb_connection_t *xcb = nullptr;
    xcb_window_t root = XCB_NONE;
    xcb_atom_t atoms[AtomCount] = {};

    Connection() = default;
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    // xcb wants even a failed connection disconnected.
    ~Connection() {
        if (xcb) xcb_disconnect(xcb);
    }
};
using ConnectionRef = std::shared_ptr<const Connection>;

// A connection of its own, for a watcher that selects events on it; nullptr
// when the display cannot be reached.
ConnectionRef openConnection(const QByteArray &display);
// The connection every thread shares for requests; the events it sees are
// dropped. nullptr without an X11 display or in a Wayland session.
ConnectionRef sharedConnection();

xcb_get_property_cookie_t requestProperty(const Connection &c, xcb_window_t window, Atom property,
                                          xcb_atom_t type, uint32_t maxValues = 1);
// The 32-bit values of a property; empty when it is missing, of another type,
// or the window is gone.
std::vector<uint32_t> propertyValues(const Connection &c, xcb_get_property_cookie_t cookie);
// The _NET_WM_PID of each window, 0 where it has none.
std::vector<pid_t> windowOwners(const Connection &c, const std::vector<uint32_t> &windows);
xcb_window_t activeWindow(const Connection &c);

// Calls readEvents on the thread of the running Qt application now and
// whenever the connection has something to read, for the rest of the process
// (no polling); readEvents takes every event xcb holds. The events must have
// been selected before. False without an application.
bool followEvents(const ConnectionRef &events, std::function<void()> readEvents);

}  // namespace KVWindowServerPrivate
