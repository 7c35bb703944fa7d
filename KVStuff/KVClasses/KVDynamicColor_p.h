// What the portable half of KVDynamicColor shares with its operating-system
// half and with the tests. Not part of the library's interface.
#pragma once

#include <QColor>
#include <QPalette>
#include <QVariant>
#include <optional>

class QWidget;

namespace KVDynamicColorPrivate {

// The widget whose paint event the application is delivering now, else
// nullptr. Known once the first dynamic colour has been made on the main
// thread of a running application.
const QWidget *widgetBeingPainted();

// Dark when the window's text is lighter than the window.
bool isDarkPalette(const QPalette &palette);
// The appearance the widget or its nearest parent chose for itself (the
// light appearance, or a palette of its own); nothing when none did.
std::optional<bool> widgetIsDark(const QWidget *widget);
// The application's palette when it set one, else the desktop's scheme.
bool applicationIsDark();

// The accent-colour name for the stored "AppleAccentColor" value; an unknown
// index is logged unless it was also the last one logged.
QString accentColorNameForValue(const QVariant &stored);
// The name of the accent colour closest to that colour.
QString nearestAccentColorName(const QColor &accent);

// ---- Operating-system half ----

// Whether the desktop's colour scheme prefers dark; nothing when no desktop
// service answers.
std::optional<bool> desktopPrefersDark();
// The desktop's accent colour; nothing when no desktop service names one.
std::optional<QColor> desktopAccentColor();

}  // namespace KVDynamicColorPrivate
