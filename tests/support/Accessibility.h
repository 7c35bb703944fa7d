// Another program's widgets driven the way assistive technology drives them:
// over the accessibility bus, where Qt programs started with
// QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 publish their widgets. It works alike on
// X11 and on Wayland, where no test can type or click into a window.
#pragma once

#include <sys/types.h>

#include <QString>

namespace Accessibility {
// Presses the push button with the text in the windows of the process;
// false when it has no such button (yet) or no bus answers.
bool pressButton(pid_t pid, const QString &text);
}  // namespace Accessibility
