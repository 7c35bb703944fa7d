// Which process is in front, and bringing a process's windows forward or
// hiding them. On Linux this talks to the X11 window manager through the
// EWMH/ICCCM conventions; the calling process's own windows go through Qt.
// Without an X11 display, or in a Wayland-only session, there is no front
// process and every request does nothing and returns false.
//
// Requests are messages to the window manager: they return once sent, and the
// window manager carries them out a moment later. All functions may be called
// from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>

namespace KVWindowServer {
// An X11 display can be reached ($DISPLAY set, connection succeeds) and the
// session is not a Wayland one.
bool isAvailable();
// The process owning the active window; 0 when unknown.
pid_t frontProcessID();
// The active window is in the window manager's full-screen state.
bool isFrontWindowFullScreen();
// Activates the process's top-most window; unless frontWindowOnly, raises all
// of its windows first. Minimized windows come back. Returns whether the
// process has any window.
bool bringProcessToFront(pid_t pid, bool frontWindowOnly);
// Minimizes all windows of the process, or brings them back from being
// minimized. Returns whether the process has any window.
bool setProcessHidden(pid_t pid, bool hidden);

// Milliseconds since the user's last input, from the server's screen-saver
// extension; nothing without a display or the extension.
std::optional<uint32_t> idleMilliseconds();
// Another client holds the keyboard grabbed, as password dialogs and screen
// lockers do so that no other program reads what is typed.
bool isKeyboardGrabbedElsewhere();
// Calls changed with isFrontWindowFullScreen() on the thread of the running
// Qt application whenever the active window or its state changes, from X
// events on a connection of its own (no polling), for the rest of the
// process. False, with nothing watched, without a display or an application.
bool watchFrontWindowFullScreen(std::function<void(bool fullScreen)> changed);
// How many times the clipboard (the CLIPBOARD selection) has had a new owner
// since the first call, counted from the X server's selection events on the
// thread of the running Qt application (no polling). Stays 0 without a
// display, the XFixes extension or an application; a later call tries again.
int clipboardChangeCount();
}  // namespace KVWindowServer
