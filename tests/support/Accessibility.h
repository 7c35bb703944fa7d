// Presses another program's buttons over the accessibility bus (Qt publishes there with
// QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1): on Wayland no test can type or click into a window.
#pragma once

#include <sys/types.h>

#include <QString>

namespace Accessibility {
// False when the process has no such push button (yet) or no bus answers.
bool pressButton(pid_t pid, const QString &text);
}  // namespace Accessibility
