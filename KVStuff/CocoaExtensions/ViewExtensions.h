// View helpers: stacking order, scrolling inside a scroll area, the light
// appearance, desktop dark-mode notifications, wrapping in an effect view and
// a zoom factor. Main thread only, like the widgets they touch. A null view
// does nothing and answers false, 0 or nullptr.
#pragma once

#include <QPointF>
#include <QRectF>
#include <QWidget>
#include <functional>

// The wrapper that wrapInVisualEffectView puts around a view. Qt has no
// blur-behind or vibrancy material, so it paints nothing of its own: it only
// groups the view, and lets layouts size it like the view it holds.
class KVVisualEffectView : public QWidget {
    Q_OBJECT

public:
    explicit KVVisualEffectView(QWidget *parent = nullptr);
};

namespace ViewExtensions {

// Moves the view to the top of its siblings' stacking order (it becomes the
// parent's last child); a view without parent stays as it is.
void bringToFrontInsideSuperView(QWidget *view);

// Scrolls the enclosing scroll area vertically, animated, until the rectangle
// (in the view's own top-down coordinates, as for a flipped document view)
// is in view; the horizontal position goes to 0. A rectangle taller than the
// visible area shows its far part (next to y + height) when preferTop is true,
// its origin part otherwise. False when the rectangle already lay inside; a
// far edge exactly on the visible far edge still answers true (a move by 0).
bool animatedVerticalScrollRectToVisible(QWidget *view, const QRectF &rect, bool preferTop);

// Scrolls the least that brings the rectangle into view, at once: the
// animated flag is ignored. A rectangle larger than the visible area shows its
// origin part. True when a scroll bar moved.
bool scrollRectToVisible(QWidget *view, const QRectF &rect, bool animated);

// Animates the enclosing scroll area to the scroll position (the scroll bars'
// values), limited to the scroll bars' ranges.
void scrollPointAnimated(QWidget *view, const QPointF &point);

// True gives the view and its children a fixed light palette that a dark
// desktop theme does not change; false lets the view inherit its parent's
// palette again.
void useLightAquaAppearance(QWidget *view, bool light);

// Calls the callback on the main thread each time the desktop switches between
// light and dark, until unregisterDarkModeNotifications or the view's end.
// Each registration is called once per change.
void registerDarkModeNotifications(QWidget *view, std::function<void()> callback);
template <class View>
void registerDarkModeNotifications(View *view, void (View::*method)()) {
    // The view outlives every call: a destroyed view is never called.
    registerDarkModeNotifications(view, [view, method] { (view->*method)(); });
}
// Removes every registration of the view.
void unregisterDarkModeNotifications(QWidget *view);

// The effect view the view sits in, else nullptr.
KVVisualEffectView *enclosingVisualEffectView(QWidget *view);
// Puts the view into a new effect view that takes the view's place (geometry,
// layout position) and holds the view at (0, 0) with its size; a view already
// wrapped gives its effect view again. A view without parent gives an effect
// view without parent.
KVVisualEffectView *wrapInVisualEffectView(QWidget *view);

// Qt draws widgets unscaled, so the zoom factor is one number per widget that
// its own painting may apply; it is not multiplied with the parents' factors.
qreal scale(QWidget *view);
void setScale(QWidget *view, qreal scale);
void resetScaling(QWidget *view);

}  // namespace ViewExtensions
