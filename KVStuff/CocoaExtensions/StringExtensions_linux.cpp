// The key names of the current keyboard layout: xkbcommon with the keymap the
// X server holds now.
#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

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

}  // namespace

QString StringExtensions::stringWithVirtualKeyCode(uint16_t keyCode, uint32_t modifiers) {
    const QString error = QStringLiteral("<ERR>");
    if (keyCode >= sizeof kEventCodes || kEventCodes[keyCode] == 0) return error;
    std::unique_ptr<xcb_connection_t, Deleter<xcb_disconnect>> connection(
        xcb_connect(nullptr, nullptr));
    if (!connection || xcb_connection_has_error(connection.get())) return error;
    if (!xkb_x11_setup_xkb_extension(
            connection.get(), XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
            XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, nullptr, nullptr))
        return error;
    const int32_t device = xkb_x11_get_core_keyboard_device_id(connection.get());
    std::unique_ptr<xkb_context, Deleter<xkb_context_unref>> context(
        xkb_context_new(XKB_CONTEXT_NO_FLAGS));
    if (device < 0 || !context) return error;
    std::unique_ptr<xkb_keymap, Deleter<xkb_keymap_unref>> keymap(xkb_x11_keymap_new_from_device(
        context.get(), connection.get(), device, XKB_KEYMAP_COMPILE_NO_FLAGS));
    if (!keymap) return error;
    // The layout group in force now, with the modifiers asked for.
    std::unique_ptr<xkb_state, Deleter<xkb_state_unref>> current(
        xkb_x11_state_new_from_device(keymap.get(), connection.get(), device));
    std::unique_ptr<xkb_state, Deleter<xkb_state_unref>> state(xkb_state_new(keymap.get()));
    if (!current || !state) return error;
    xkb_mod_mask_t mask = 0;
    for (const auto &[bit, name] : kModifiers) {
        const xkb_mod_index_t index = xkb_keymap_mod_get_index(keymap.get(), name);
        if ((modifiers & bit) && index != XKB_MOD_INVALID) mask |= 1u << index;
    }
    const xkb_layout_index_t layout =
        xkb_state_serialize_layout(current.get(), XKB_STATE_LAYOUT_EFFECTIVE);
    xkb_state_update_mask(state.get(), mask, 0, 0, 0, 0, layout);
    char text[64];
    const int length =
        xkb_state_key_get_utf8(state.get(), kEventCodes[keyCode] + 8, text, sizeof text);
    if (length <= 0 || length >= int(sizeof text)) return error;
    return QString::fromUtf8(text, length);
}
