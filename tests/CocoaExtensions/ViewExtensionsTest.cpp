#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QLabel>
#include <QScrollArea>
#include <QScrollBar>
#include <QTest>
#include <QVBoxLayout>

#include "ViewExtensions.h"
#include "ViewExtensions_p.h"

using namespace ViewExtensions;
using ViewExtensionsPrivate::isScrollAnimationRunning;

namespace {

// A 400 x 1000 document in a 200 x 100 viewport: the vertical bar runs from 0
// to 900, the horizontal one from 0 to 200.
class ViewExtensionsScrollTest : public testing::Test {
protected:
    void SetUp() override {
        area_.setFrameShape(QFrame::NoFrame);
        area_.setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        area_.setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        document_->resize(400, 1000);
        area_.setWidget(document_);
        area_.resize(200, 100);
        area_.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&area_));
        ASSERT_EQ(vertical()->maximum(), 900);
    }

    QScrollBar *vertical() { return area_.verticalScrollBar(); }
    QScrollBar *horizontal() { return area_.horizontalScrollBar(); }

    // Scrolls animated from the given position; the position once it has settled.
    int scrollFrom(int start, const QRectF &rect, bool preferTop, bool expectScroll = true) {
        vertical()->setValue(start);
        EXPECT_EQ(animatedVerticalScrollRectToVisible(document_, rect, preferTop), expectScroll);
        EXPECT_TRUE(QTest::qWaitFor([this] { return !isScrollAnimationRunning(&area_); }));
        return vertical()->value();
    }

    QScrollArea area_;
    QWidget *document_ = new QWidget;
};

}  // namespace

TEST_F(ViewExtensionsScrollTest, RectangleInsideTheVisibleAreaDoesNotScroll) {
    EXPECT_EQ(scrollFrom(300, QRectF(10, 320, 50, 50), false, false), 300);
    EXPECT_EQ(scrollFrom(300, QRectF(0, 300, 10, 99), false, false), 300);
}

TEST_F(ViewExtensionsScrollTest, FarEdgeExactlyOnTheVisibleFarEdgeScrollsByNothingAndSaysSo) {
    EXPECT_EQ(scrollFrom(300, QRectF(0, 350, 10, 50), false), 300);
}

TEST_F(ViewExtensionsScrollTest, ScrollsTheLeastAndSendsTheHorizontalPositionHome) {
    horizontal()->setValue(50);
    EXPECT_EQ(scrollFrom(0, QRectF(120, 500, 10, 40), false), 440);  // far edges meet
    EXPECT_EQ(horizontal()->value(), 0);
    EXPECT_EQ(scrollFrom(500, QRectF(0, 200, 10, 40), false), 200);  // origins meet
}

TEST_F(ViewExtensionsScrollTest, TallRectangleShowsItsFarPartOnlyWhenPreferringTop) {
    const QRectF tall(0, 300, 10, 250);  // far edge at 550, viewport 100 high
    EXPECT_EQ(scrollFrom(0, tall, true), 450);
    EXPECT_EQ(scrollFrom(800, tall, true), 450);
    EXPECT_EQ(scrollFrom(0, tall, false), 300);
    EXPECT_EQ(scrollFrom(800, tall, false), 300);
}

TEST_F(ViewExtensionsScrollTest, ScrollRectToVisibleScrollsAtOnceEvenWhenAskedToAnimate) {
    EXPECT_TRUE(scrollRectToVisible(document_, QRectF(350, 500, 30, 40), true));
    EXPECT_FALSE(isScrollAnimationRunning(&area_));
    EXPECT_EQ(vertical()->value(), 440);
    EXPECT_EQ(horizontal()->value(), 180);
    EXPECT_FALSE(scrollRectToVisible(document_, QRectF(350, 500, 30, 40), true));

    // It also ends an animated scroll still under way.
    ASSERT_TRUE(animatedVerticalScrollRectToVisible(document_, QRectF(0, 900, 10, 100), false));
    scrollRectToVisible(document_, QRectF(0, 500, 10, 10), false);
    EXPECT_FALSE(isScrollAnimationRunning(&area_));
}

TEST_F(ViewExtensionsScrollTest, ScrollPointAnimatedAnimatesWithinTheScrollRange) {
    scrollPointAnimated(document_, QPointF(-50, 5000));
    EXPECT_TRUE(isScrollAnimationRunning(&area_));
    EXPECT_TRUE(QTest::qWaitFor([this] { return vertical()->value() == 900; }));
    EXPECT_EQ(horizontal()->value(), 0);
}

TEST(ViewExtensionsScrollArithmetic, KeepsTheTargetInSinglePrecision) {
    using ViewExtensionsPrivate::verticalScrollTarget;
    const QRectF visible(0, 0, 100, 100);
    // 2^24 + 1 has no float of its own.
    EXPECT_EQ(verticalScrollTarget(QRectF(0, 50, 10, 51), visible, 16777216.0, false), 16777216.0);
    EXPECT_EQ(verticalScrollTarget(QRectF(0, 0, 10, 100), visible, 0.1, false), double(0.1f));
}

TEST(ViewExtensionsStacking, BringToFrontMakesTheViewTheLastChild) {
    QWidget parent;
    auto *first = new QWidget(&parent);
    new QWidget(&parent);
    bringToFrontInsideSuperView(first);
    EXPECT_EQ(parent.children().last(), first);
}

TEST(ViewExtensionsAppearance, LightAppearanceOverridesADarkParentUntilSwitchedOff) {
    QWidget parent;
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(30, 30, 30));
    dark.setColor(QPalette::Base, QColor(20, 20, 20));
    dark.setColor(QPalette::Link, QColor(1, 2, 3));
    parent.setPalette(dark);
    auto *view = new QWidget(&parent);
    auto *inner = new QWidget(view);

    useLightAquaAppearance(view, true);
    EXPECT_GT(view->palette().color(QPalette::Window).lightness(), 128);
    EXPECT_GT(inner->palette().color(QPalette::Base).lightness(), 128);
    // Even roles the light palette may not mention stay out of the dark parent's reach.
    EXPECT_NE(view->palette().color(QPalette::Link), QColor(1, 2, 3));

    useLightAquaAppearance(view, false);
    EXPECT_FALSE(view->testAttribute(Qt::WA_SetPalette));
    EXPECT_EQ(inner->palette().color(QPalette::Link), QColor(1, 2, 3));
    // Inheriting again means following the parent's later changes too.
    dark.setColor(QPalette::Window, QColor(60, 0, 0));
    parent.setPalette(dark);
    EXPECT_EQ(view->palette().color(QPalette::Window), QColor(60, 0, 0));
}

namespace {

// Stands in for the desktop portal on the test's private session bus.
class ViewExtensionsDarkModeTest : public testing::Test {
protected:
    static constexpr char kPortal[] = "org.freedesktop.portal.Desktop";

    // Tests run side by side on one bus: wait in the name's queue for our turn.
    void SetUp() override {
        if (!portal_.isConnected()) GTEST_SKIP() << "no session bus";
        QDBusConnectionInterface *bus = portal_.interface();
        bus->registerService(kPortal, QDBusConnectionInterface::QueueService,
                             QDBusConnectionInterface::DontAllowReplacement);
        if (!QTest::qWaitFor(
                [&] { return bus->serviceOwner(kPortal).value() == portal_.baseService(); }, 60000))
            GTEST_SKIP() << "another portal keeps the name";
    }

    void TearDown() override {
        portal_.unregisterService(kPortal);
        QDBusConnection::disconnectFromBus("fake-portal");
    }

    static void announce(QDBusConnection &connection, const QString &key = "color-scheme",
                         const QString &settingNamespace = "org.freedesktop.appearance") {
        QDBusMessage signal = QDBusMessage::createSignal(
            "/org/freedesktop/portal/desktop", "org.freedesktop.portal.Settings", "SettingChanged");
        signal << settingNamespace << key << QVariant::fromValue(QDBusVariant(uint(1)));
        ASSERT_TRUE(connection.send(signal));
    }

    // The bus takes a new match rule in its own time; one round trip on the
    // same connection waits for it.
    static void waitForTheBus() {
        QDBusConnection::sessionBus().interface()->isServiceRegistered(kPortal);
    }

    QDBusConnection portal_ =
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, "fake-portal");
};

class CountingView : public QWidget {
public:
    void appearanceChanged() { ++changes; }
    int changes = 0;
};

}  // namespace

TEST_F(ViewExtensionsDarkModeTest, CallsEachLiveViewOnceUntilUnregistered) {
    CountingView first, second;
    int destroyedCalls = 0;
    auto *doomed = new QWidget;
    registerDarkModeNotifications(doomed, [&destroyedCalls] { ++destroyedCalls; });
    registerDarkModeNotifications(&first, &CountingView::appearanceChanged);
    registerDarkModeNotifications(&second, &CountingView::appearanceChanged);
    delete doomed;
    waitForTheBus();

    announce(portal_);
    ASSERT_TRUE(QTest::qWaitFor([&] { return second.changes == 1; }));
    EXPECT_EQ(first.changes, 1);
    EXPECT_EQ(destroyedCalls, 0);

    unregisterDarkModeNotifications(&first);
    announce(portal_);
    ASSERT_TRUE(QTest::qWaitFor([&] { return second.changes == 2; }));
    EXPECT_EQ(first.changes, 1);
    unregisterDarkModeNotifications(&second);
}

TEST_F(ViewExtensionsDarkModeTest, IgnoresOtherSettingsAndSendersOtherThanThePortal) {
    CountingView view;
    registerDarkModeNotifications(&view, &CountingView::appearanceChanged);
    waitForTheBus();
    announce(portal_, "accent-color");
    announce(portal_, "color-scheme", "org.gnome.desktop.interface");
    QDBusConnection impostor = QDBusConnection::sessionBus();
    announce(impostor);
    waitForTheBus();  // the impostor's signal has been routed by now

    announce(portal_);
    ASSERT_TRUE(QTest::qWaitFor([&] { return view.changes >= 1; }));
    EXPECT_EQ(view.changes, 1);
    unregisterDarkModeNotifications(&view);
}

TEST(ViewExtensionsEffectView, WrapperTakesTheViewsPlaceInTheLayoutOnce) {
    QWidget parent;
    auto *layout = new QVBoxLayout(&parent);
    layout->addWidget(new QLabel("Top"));
    auto *view = new QLabel("Middle");
    layout->addWidget(view);
    layout->addWidget(new QLabel("Bottom"));
    parent.resize(300, 300);
    parent.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&parent));
    const QRect frame = view->geometry();

    KVVisualEffectView *effect = wrapInVisualEffectView(view);
    ASSERT_NE(effect, nullptr);
    QCoreApplication::sendPostedEvents();
    layout->activate();
    EXPECT_EQ(layout->indexOf(effect), 1);
    EXPECT_EQ(effect->geometry(), frame);
    EXPECT_EQ(view->geometry(), QRect(QPoint(0, 0), frame.size()));
    EXPECT_TRUE(view->isVisible());
    EXPECT_EQ(wrapInVisualEffectView(view), effect);
    EXPECT_EQ(view->parentWidget(), effect);
    EXPECT_EQ(effect->parentWidget(), &parent);
}

TEST(ViewExtensionsEffectView, WrapperKeepsTheFrameAndVisibilityWithoutLayout) {
    QWidget parent;
    auto *view = new QLabel("Free", &parent);
    view->setGeometry(10, 20, 80, 40);
    auto *hidden = new QLabel("Hidden", &parent);
    hidden->hide();
    parent.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&parent));

    KVVisualEffectView *effect = wrapInVisualEffectView(view);
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(effect->geometry(), QRect(10, 20, 80, 40));
    EXPECT_EQ(view->geometry(), QRect(0, 0, 80, 40));
    EXPECT_TRUE(view->isVisible());
    wrapInVisualEffectView(hidden);
    EXPECT_TRUE(hidden->isHidden());
}

TEST(ViewExtensionsScale, SetScaleReplacesAndResetScalingRestoresOne) {
    QWidget view;
    setScale(&view, 2.5);
    setScale(&view, 0.5);
    EXPECT_EQ(scale(&view), 0.5);
    resetScaling(&view);
    EXPECT_EQ(scale(&view), 1.0);
    EXPECT_EQ(scale(nullptr), 0.0);
}
