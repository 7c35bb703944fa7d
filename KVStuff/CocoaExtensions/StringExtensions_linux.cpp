// The key names of the current keyboard layout: xkbcommon with the keymap the
// X server holds now, else the one the Wayland compositor hands its clients'
// keyboards.
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>
#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <QByteArray>
#include <cstring>
#include <memory>

#include "StringExtensions.h"

namespace {

// The platform's virtual key codes (kVK_ANSI_A = 0 ...) as Linux input event
// codes; the X key code is the event code plus 8. 0: no such key here.
constexpr uint8_t kEventCodes[0x60] = {
    30, 31,  32, 33, 35, 34,  44, 45,
    46, 47,  86, 48, 16, 17,  18, 19,  // 0x00 A S D F H G Z X C V § B Q W E R
    21, 20,  2,  3,  4,  5,   7,  6,
    13, 10,  8,  12, 9,  11,  27, 24,  // 0x10 Y T 1 2 3 4 6 5 = 9 7 - 8 0 ] O
    22, 26,  23, 25, 28, 38,  36, 40,
    37, 39,  43, 51, 53, 49,  50, 52,  // 0x20 U [ I P Return L J ' K ; \ , / N M .
    15, 57,  41, 14, 0,  1,   0,  0,
    0,  0,   0,  0,  0,  0,   0,  0,  // 0x30 Tab Space ` Delete - Escape
    0,  83,  0,  55, 0,  78,  0,  69,
    0,  0,   0,  98, 96, 0,   74, 0,  // 0x40 keypad . * + Clear / Enter -
    0,  117, 82, 79, 80, 81,  75, 76,
    77, 71,  0,  72, 73, 124, 89, 121,  // 0x50 keypad = 0-7, 8 9, JIS
};

// Modifier bits of the key translation and the X modifiers they stand for.
constexpr std::pair<uint32_t, const char *> kModifiers[] = {
    {0x01, XKB_MOD_NAME_LOGO},
    {0x02, XKB_MOD_NAME_SHIFT},
    {0x04, XKB_MOD_NAME_CAPS},
    {0x08, "Mod5"},  // Option chooses the third level, as AltGr does here
    {0x10, XKB_MOD_NAME_CTRL},
};

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T *p) const {
        Free(p);
    }
};

using Keymap = std::unique_ptr<xkb_keymap, Deleter<xkb_keymap_unref>>;

// A keymap and the layout group in force in it.
struct Layout {
    Keymap keymap;
    xkb_layout_index_t group = 0;
};

Layout x11Layout(xkb_context *context) {
    std::unique_ptr<xcb_connection_t, Deleter<xcb_disconnect>> connection(
        xcb_connect(nullptr, nullptr));
    if (!connection || xcb_connection_has_error(connection.get())) return {};
    if (!xkb_x11_setup_xkb_extension(
            connection.get(), XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
            XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, nullptr, nullptr))
        return {};
    const int32_t device = xkb_x11_get_core_keyboard_device_id(connection.get());
    if (device < 0) return {};
    Layout layout{Keymap(xkb_x11_keymap_new_from_device(context, connection.get(), device,
                                                        XKB_KEYMAP_COMPILE_NO_FLAGS))};
    if (!layout.keymap) return {};
    std::unique_ptr<xkb_state, Deleter<xkb_state_unref>> current(
        xkb_x11_state_new_from_device(layout.keymap.get(), connection.get(), device));
    if (!current) return {};
    layout.group = xkb_state_serialize_layout(current.get(), XKB_STATE_LAYOUT_EFFECTIVE);
    return layout;
}

// What the compositor tells a client that takes the first seat's keyboard:
// the keymap at once; the group only to a client whose window has the
// focus, which this one never has, so the first layout counts.
struct WaylandKeyboard {
    xkb_context *context = nullptr;
    wl_seat *seat = nullptr;
    wl_keyboard *keyboard = nullptr;
    Keymap keymap;
};

void keymapReceived(void *data, wl_keyboard *, uint32_t format, int32_t fd, uint32_t size) {
    auto *keyboard = static_cast<WaylandKeyboard *>(data);
    void *text = format == WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1 && size > 0
                     ? mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0)
                     : MAP_FAILED;
    close(fd);
    if (text == MAP_FAILED) return;
    // The text ends in a NUL within the size; a map that does not is refused.
    keyboard->keymap.reset(
        xkb_keymap_new_from_buffer(keyboard->context, static_cast<const char *>(text),
                                   strnlen(static_cast<const char *>(text), size),
                                   XKB_KEYMAP_FORMAT_TEXT_V1, XKB_KEYMAP_COMPILE_NO_FLAGS));
    munmap(text, size);
}

const wl_keyboard_listener kKeyboardListener = {
    keymapReceived,
    [](void *, wl_keyboard *, uint32_t, wl_surface *, wl_array *) {},
    [](void *, wl_keyboard *, uint32_t, wl_surface *) {},
    [](void *, wl_keyboard *, uint32_t, uint32_t, uint32_t, uint32_t) {},
    [](void *, wl_keyboard *, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {},
    [](void *, wl_keyboard *, int32_t, int32_t) {},
};

void seatCapabilities(void *data, wl_seat *seat, uint32_t capabilities) {
    auto *keyboard = static_cast<WaylandKeyboard *>(data);
    if (keyboard->keyboard || !(capabilities & WL_SEAT_CAPABILITY_KEYBOARD)) return;
    keyboard->keyboard = wl_seat_get_keyboard(seat);
    wl_keyboard_add_listener(keyboard->keyboard, &kKeyboardListener, keyboard);
}

const wl_seat_listener kSeatListener = {seatCapabilities, [](void *, wl_seat *, const char *) {}};

void globalAnnounced(void *data, wl_registry *registry, uint32_t name, const char *interface,
                     uint32_t) {
    auto *keyboard = static_cast<WaylandKeyboard *>(data);
    if (keyboard->seat || strcmp(interface, wl_seat_interface.name) != 0) return;
    keyboard->seat =
        static_cast<wl_seat *>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
    wl_seat_add_listener(keyboard->seat, &kSeatListener, keyboard);
}

const wl_registry_listener kRegistryListener = {globalAnnounced,
                                                [](void *, wl_registry *, uint32_t) {}};

Layout waylandLayout(xkb_context *context) {
    // Only a session that names its compositor: libwayland would otherwise
    // try "wayland-0", and complain on standard error without a runtime folder.
    const QByteArray socket = qgetenv("WAYLAND_DISPLAY");
    if (socket.isEmpty() ||
        (!socket.startsWith('/') && qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR")))
        return {};
    std::unique_ptr<wl_display, Deleter<wl_display_disconnect>> display(
        wl_display_connect(nullptr));
    if (!display) return {};
    WaylandKeyboard keyboard;
    keyboard.context = context;
    std::unique_ptr<wl_registry, Deleter<wl_registry_destroy>> registry(
        wl_display_get_registry(display.get()));
    wl_registry_add_listener(registry.get(), &kRegistryListener, &keyboard);
    // Globals, then the seat's capabilities, then the keyboard's keymap.
    for (int i = 0; i < 3 && !keyboard.keymap; ++i)
        if (wl_display_roundtrip(display.get()) < 0) break;
    if (keyboard.keyboard) wl_keyboard_destroy(keyboard.keyboard);
    if (keyboard.seat) wl_seat_destroy(keyboard.seat);
    return {std::move(keyboard.keymap)};
}

}  // namespace

QString StringExtensions::stringWithVirtualKeyCode(uint16_t keyCode, uint32_t modifiers) {
    const QString error = QStringLiteral("<ERR>");
    if (keyCode >= sizeof kEventCodes || kEventCodes[keyCode] == 0) return error;
    std::unique_ptr<xkb_context, Deleter<xkb_context_unref>> context(
        xkb_context_new(XKB_CONTEXT_NO_FLAGS));
    if (!context) return error;
    // The X server knows the group in force; the compositor tells it only to
    // a focused window.
    Layout layout = x11Layout(context.get());
    if (!layout.keymap) layout = waylandLayout(context.get());
    if (!layout.keymap) return error;
    xkb_keymap *keymap = layout.keymap.get();
    std::unique_ptr<xkb_state, Deleter<xkb_state_unref>> state(xkb_state_new(keymap));
    if (!state) return error;
    xkb_mod_mask_t mask = 0;
    for (const auto &[bit, name] : kModifiers) {
        const xkb_mod_index_t index = xkb_keymap_mod_get_index(keymap, name);
        if ((modifiers & bit) && index != XKB_MOD_INVALID) mask |= 1u << index;
    }
    xkb_state_update_mask(state.get(), mask, 0, 0, 0, 0, layout.group);
    char text[64];
    const int length =
        xkb_state_key_get_utf8(state.get(), kEventCodes[keyCode] + 8, text, sizeof text);
    if (length <= 0 || length >= int(sizeof text)) return error;
    return QString::fromUtf8(text, length);
}
