#include "ViewExtensions.h"

#include <QAbstractScrollArea>
#include <QHBoxLayout>
#include <QPalette>
#include <QPointer>
#include <QPropertyAnimation>
#include <QScrollBar>
#include <QStyle>
#include <QStyleFactory>
#include <algorithm>
#include <memory>
#include <vector>

#include "KVUtilities.h"
#include "ViewExtensions_p.h"

using namespace ViewExtensionsPrivate;

namespace {

constexpr char kScrollAnimationName[] = "kvScrollAnimation";

// The scroll area whose viewport holds the view; its viewport plays the clip
// view, the scroll bars' values its bounds origin.
QAbstractScrollArea *enclosingScrollArea(const QWidget *view) {
    for (const QWidget *w = view; w && !w->isWindow(); w = w->parentWidget()) {
        auto *area = qobject_cast<QAbstractScrollArea *>(w->parentWidget());
        if (area && area->viewport() == w) return area;
    }
    return nullptr;
}

// The part of the view that its ancestors up to the window do not clip away,
// in the view's coordinates.
QRectF visibleRect(const QWidget *view) {
    QRect visible = view->rect();
    for (const QWidget *child = view, *parent = view->parentWidget(); parent && !child->isWindow();
         child = parent, parent = parent->parentWidget())
        visible &= QRect(view->mapFrom(parent, QPoint(0, 0)), parent->size());
    return QRectF(visible);
}

int clampedValue(const QScrollBar *bar, double value) {
    return qRound(std::clamp(value, double(bar->minimum()), double(bar->maximum())));
}

void stopScrollAnimation(QScrollBar *bar) {
    delete bar->findChild<QPropertyAnimation *>(kScrollAnimationName, Qt::FindDirectChildrenOnly);
}

// Qt's counterpart of setting the clip view's origin through its animator.
void animateScrollBar(QScrollBar *bar, double value) {
    stopScrollAnimation(bar);
    const int target = clampedValue(bar, value);
    if (target == bar->value()) return;
    auto *animation = new QPropertyAnimation(bar, "value", bar);
    animation->setObjectName(kScrollAnimationName);
    animation->setDuration(kScrollAnimationMilliseconds);
    animation->setEasingCurve(QEasingCurve::InOutQuad);
    animation->setEndValue(target);
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

bool scrollBarBy(QScrollBar *bar, double delta) {
    const int before = bar->value();
    bar->setValue(clampedValue(bar, before + delta));
    return bar->value() != before;
}

// How far to scroll along one axis so that [start, end] shows, the least
// distance, or its start when it cannot show whole.
double axisShift(double start, double end, double visibleStart, double visibleEnd) {
    if (start < visibleStart || end - start > visibleEnd - visibleStart)
        return start - visibleStart;
    if (end > visibleEnd) return end - visibleEnd;
    return 0.0;
}

// Fusion's palette is fixed and light, whatever the desktop's theme.
const QPalette &lightPalette() {
    static const QPalette palette = [] {
        std::unique_ptr<QStyle> fusion(QStyleFactory::create(QStringLiteral("Fusion")));
        QPalette light = fusion ? fusion->standardPalette() : QPalette(QColor(239, 239, 239));
        // Every role counts as set, so none is inherited from a dark parent.
        light.setResolveMask(~QPalette::ResolveMask(0));
        return light;
    }();
    return palette;
}

struct DarkModeRegistration {
    quint64 id;
    QPointer<QWidget> view;
    std::function<void()> callback;
};

std::vector<DarkModeRegistration> &darkModeRegistrations() {
    static std::vector<DarkModeRegistration> registrations;
    return registrations;
}

void forgetDestroyedViews() {
    std::erase_if(darkModeRegistrations(),
                  [](const DarkModeRegistration &entry) { return entry.view.isNull(); });
}

}  // namespace

KVVisualEffectView::KVVisualEffectView(QWidget *parent) : QWidget(parent) {
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
}

// ---- Shared with the operating-system half and the tests ----

std::optional<double> ViewExtensionsPrivate::verticalScrollTarget(const QRectF &rect,
                                                                  const QRectF &visible,
                                                                  double clipOriginY,
                                                                  bool preferTop) {
    double y = rect.y();
    double height = rect.height();
    const double visibleY = visible.y();
    const double visibleHeight = visible.height();
    if (height > visibleHeight) {
        if (preferTop) y = y + height - visibleHeight;
        height = visibleHeight;
    }
    double delta;
    if (visibleY > y)
        delta = y - visibleY;
    else if (y + height >= visibleY + visibleHeight)
        delta = (y + height) - (visibleY + visibleHeight);
    else
        return std::nullopt;
    // The platform keeps the target in a float; large positions round the same way here.
    const float target = float(clipOriginY + delta);
    return double(target);
}

bool ViewExtensionsPrivate::isScrollAnimationRunning(const QAbstractScrollArea *area) {
    for (const QScrollBar *bar : {area->horizontalScrollBar(), area->verticalScrollBar()}) {
        const auto *animation =
            bar->findChild<QPropertyAnimation *>(kScrollAnimationName, Qt::FindDirectChildrenOnly);
        if (animation && animation->state() == QAbstractAnimation::Running) return true;
    }
    return false;
}

void ViewExtensionsPrivate::postDarkModeChange() {
    forgetDestroyedViews();
    // A callback may register or unregister views; each one is looked up again.
    std::vector<quint64> ids;
    for (const DarkModeRegistration &entry : darkModeRegistrations()) ids.push_back(entry.id);
    for (const quint64 id : ids) {
        auto &registrations = darkModeRegistrations();
        const auto entry = std::find_if(
            registrations.begin(), registrations.end(),
            [id](const DarkModeRegistration &candidate) { return candidate.id == id; });
        if (entry == registrations.end() || entry->view.isNull()) continue;
        const std::function<void()> callback = entry->callback;
        callback();
    }
}

// ---- Stacking ----

void ViewExtensions::bringToFrontInsideSuperView(QWidget *view) {
    // raise() on a window would raise the window itself; a view without
    // superview has no siblings to rise above.
    if (!view || view->isWindow()) return;
    view->raise();
}

// ---- Scrolling ----

bool ViewExtensions::animatedVerticalScrollRectToVisible(QWidget *view, const QRectF &rect,
                                                         bool preferTop) {
    if (!view) return false;
    QAbstractScrollArea *area = enclosingScrollArea(view);
    const double clipOriginY = area ? area->verticalScrollBar()->value() : 0.0;
    const std::optional<double> target =
        verticalScrollTarget(rect, visibleRect(view), clipOriginY, preferTop);
    if (!target) return false;
    // Outside a scroll area there is nothing to move, yet the answer follows
    // the arithmetic as it does on the platform. The scroll area follows its
    // bars by itself, so nothing has to reflect the new position afterwards.
    if (area) {
        animateScrollBar(area->horizontalScrollBar(), 0.0);
        animateScrollBar(area->verticalScrollBar(), *target);
    }
    return true;
}

bool ViewExtensions::scrollRectToVisible(QWidget *view, const QRectF &rect, bool animated) {
    Q_UNUSED(animated);
    if (!view) return false;
    QAbstractScrollArea *area = enclosingScrollArea(view);
    if (!area) return false;
    QScrollBar *horizontal = area->horizontalScrollBar();
    QScrollBar *vertical = area->verticalScrollBar();
    // The immediate scroll wins over one still under way.
    stopScrollAnimation(horizontal);
    stopScrollAnimation(vertical);
    const QRectF visible = visibleRect(view);
    // Pixel for pixel: the scroll bars of a QScrollArea count pixels.
    const bool movedHorizontally = scrollBarBy(
        horizontal, axisShift(rect.left(), rect.right(), visible.left(), visible.right()));
    const bool movedVertically = scrollBarBy(
        vertical, axisShift(rect.top(), rect.bottom(), visible.top(), visible.bottom()));
    return movedHorizontally || movedVertically;
}

void ViewExtensions::scrollPointAnimated(QWidget *view, const QPointF &point) {
    QAbstractScrollArea *area = view ? enclosingScrollArea(view) : nullptr;
    if (!area) return;
    animateScrollBar(area->horizontalScrollBar(), point.x());
    animateScrollBar(area->verticalScrollBar(), point.y());
}

// ---- Appearance ----

void ViewExtensions::useLightAquaAppearance(QWidget *view, bool light) {
    if (!view || !KVUtilities::mojaveOrNewer()) return;
    if (light) {
        view->setPalette(lightPalette());
        view->setProperty(kLightAppearanceProperty, true);
    } else {
        // An empty palette resolves entirely against the parent's.
        view->setPalette(QPalette());
        view->setAttribute(Qt::WA_SetPalette, false);
        view->setProperty(kLightAppearanceProperty, QVariant());
    }
}

void ViewExtensions::registerDarkModeNotifications(QWidget *view, std::function<void()> callback) {
    if (!view || !callback) return;
    static quint64 nextId = 0;
    forgetDestroyedViews();
    darkModeRegistrations().push_back({++nextId, view, std::move(callback)});
    watchDesktopAppearance();
}

void ViewExtensions::unregisterDarkModeNotifications(QWidget *view) {
    if (!view) return;
    std::erase_if(darkModeRegistrations(), [view](const DarkModeRegistration &entry) {
        return entry.view == view || entry.view.isNull();
    });
}

// ---- Effect view ----

KVVisualEffectView *ViewExtensions::enclosingVisualEffectView(QWidget *view) {
    if (!view || !KVUtilities::mojaveOrNewer() || view->isWindow()) return nullptr;
    return qobject_cast<KVVisualEffectView *>(view->parentWidget());
}

KVVisualEffectView *ViewExtensions::wrapInVisualEffectView(QWidget *view) {
    if (!view || !KVUtilities::mojaveOrNewer()) return nullptr;
    if (KVVisualEffectView *existing = enclosingVisualEffectView(view)) return existing;

    const QRect frame = view->geometry();
    const bool wasHidden = view->isHidden();
    QWidget *formerParent = view->isWindow() ? nullptr : view->parentWidget();

    auto *effect = new KVVisualEffectView;
    effect->setGeometry(frame);
    effect->setSizePolicy(view->sizePolicy());
    if (formerParent) {
        QLayout *layout = formerParent->layout();
        // replaceWidget gives the effect view the layout slot and the parent.
        const std::unique_ptr<QLayoutItem> replaced(layout ? layout->replaceWidget(view, effect)
                                                           : nullptr);
        if (!replaced) effect->setParent(formerParent);
        effect->setGeometry(frame);
    }
    view->setParent(effect);
    view->setGeometry(QRect(QPoint(0, 0), frame.size()));
    effect->layout()->addWidget(view);
    // A new parent hides a widget; the wrapped view looks as it did before.
    if (!wasHidden) view->show();
    if (formerParent) effect->show();
    return effect;
}

// ---- Zoom ----

qreal ViewExtensions::scale(QWidget *view) {
    if (!view) return 0.0;
    const QVariant factor = view->property(kScaleProperty);
    return factor.isValid() ? factor.toDouble() : 1.0;
}

void ViewExtensions::setScale(QWidget *view, qreal scale) {
    if (!view) return;
    resetScaling(view);
    view->setProperty(kScaleProperty, scale);
    view->update();
}

void ViewExtensions::resetScaling(QWidget *view) {
    if (!view) return;
    view->setProperty(kScaleProperty, QVariant());
}
