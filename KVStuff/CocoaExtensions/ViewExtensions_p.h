// What the portable half of the view helpers shares with its operating-system
// half and with the tests. Not part of the library's interface.
#pragma once

#include <QRectF>
#include <optional>

class QAbstractScrollArea;

namespace ViewExtensionsPrivate {

// The marks the helpers leave on a widget.
inline constexpr char kLightAppearanceProperty[] = "kvLightAppearance";
inline constexpr char kScaleProperty[] = "kvScale";

inline constexpr int kScrollAnimationMilliseconds = 200;

// The arithmetic of animatedVerticalScrollRectToVisible: the new vertical
// scroll position for the rectangle, given the visible rectangle (both in the
// view's coordinates) and the current scroll position; nothing when the
// rectangle already lies inside. A far edge exactly on the visible far edge
// counts as outside (a move by 0). The result has passed through a float.
std::optional<double> verticalScrollTarget(const QRectF &rect, const QRectF &visible,
                                           double clipOriginY, bool preferTop);

// Whether one of the area's scroll bars is still being animated.
bool isScrollAnimationRunning(const QAbstractScrollArea *area);

// ---- Dark-mode notifications ----

// Calls every registration whose view still exists, once each.
void postDarkModeChange();

// Operating-system half: starts listening for the desktop's light/dark
// switches, which then call postDarkModeChange. Harmless to call again;
// false while no notification can arrive.
bool watchDesktopAppearance();

}  // namespace ViewExtensionsPrivate
