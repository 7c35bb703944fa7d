// The window the process-watch benchmark waits for: a bare xcb client that
// names its pid on a top-level window, stamps the monotonic clock, maps the
// window, writes the stamp (nanoseconds) to standard output and waits until
// it is killed.
#include <unistd.h>
#include <xcb/xcb.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "BenchSupport.h"

int main() {
    int screenNumber = 0;
    xcb_connection_t *c = xcb_connect(nullptr, &screenNumber);
    if (xcb_connection_has_error(c)) return 1;
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screenNumber && screens.rem > 0; ++i) xcb_screen_next(&screens);
    const xcb_window_t window = xcb_generate_id(c);
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screens.data->root, 0, 0, 200, 120, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screens.data->root_visual, 0, nullptr);
    const char *name = "_NET_WM_PID";
    xcb_intern_atom_reply_t *atom =
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(strlen(name)), name), nullptr);
    if (!atom) return 1;
    const uint32_t pid = uint32_t(getpid());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom->atom, XCB_ATOM_CARDINAL, 32, 1,
                        &pid);
    free(atom);
    xcb_flush(c);
    const int64_t mapped = nanoseconds();
    xcb_map_window(c, window);
    xcb_flush(c);
    std::printf("%" PRId64 "\n", mapped);
    std::fflush(stdout);
    while (xcb_generic_event_t *event = xcb_wait_for_event(c)) free(event);
    return 0;
}
