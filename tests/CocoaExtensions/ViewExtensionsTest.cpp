#include <gtest/gtest.h>

#include <QScrollArea>
#include <QScrollBar>
#include <QTest>

#include "ViewExtensions.h"
#include "ViewExtensions_p.h"

using namespace ViewExtensions;
using ViewExtensionsPrivate::isScrollAnimationRunning;

namespace {

// A 400 x 1000 document in a 200 x 100 viewport: scrolls to 900 down, 200 across.
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
    }
    bool settled() {
        return QTest::qWaitFor([this] { return !isScrollAnimationRunning(&area_); });
    }

    QScrollArea area_;
    QScrollBar *vertical = area_.verticalScrollBar(), *horizontal = area_.horizontalScrollBar();
    QWidget *document_ = new QWidget;
};

}  // namespace

// The least scroll, sent home across; a far edge exactly on the visible one still moves (by 0).
TEST_F(ViewExtensionsScrollTest, AnimatedVerticalScrollMovesTheLeastNeeded) {
    const QRectF tall(0, 300, 10, 250);  // far edge at 550, viewport 100 high
    // clang-format off
    const std::tuple<int, QRectF, bool, bool, int> rows[] = {
        // start, rectangle,          prefer top, scrolls, end
        {300,     {10, 320, 50, 50},  false,      false,   300},
        {300,     {0, 350, 10, 50},   false,      true,    300},
        {0,       {120, 500, 10, 40}, false,      true,    440},  // far edges meet
        {500,     {0, 200, 10, 40},   false,      true,    200},  // origins meet
        {0,       tall,               true,       true,    450},
        {800,     tall,               false,      true,    300}};
    // clang-format on
    for (const auto &[start, rect, preferTop, scrolls, end] : rows) {
        SCOPED_TRACE(testing::Message() << start << " " << rect.y() << " " << preferTop);
        horizontal->setValue(50);
        vertical->setValue(start);
        EXPECT_EQ(animatedVerticalScrollRectToVisible(document_, rect, preferTop), scrolls);
        EXPECT_TRUE(settled());
        EXPECT_EQ(vertical->value(), end);
        EXPECT_EQ(horizontal->value(), scrolls ? 0 : 50);
    }
    // The target passes through a float, as on the platform: 2^24 + 1 has none.
    EXPECT_EQ(ViewExtensionsPrivate::verticalScrollTarget(
                  QRectF(0, 50, 10, 51), QRectF(0, 0, 100, 100), 16777216.0, false),
              16777216.0);
}

// At once even when asked to animate, ending an animated scroll under way.
TEST_F(ViewExtensionsScrollTest, ScrollRectToVisibleScrollsAtOnce) {
    ASSERT_TRUE(animatedVerticalScrollRectToVisible(document_, QRectF(0, 900, 10, 100), false));
    EXPECT_TRUE(scrollRectToVisible(document_, QRectF(350, 500, 30, 40), true));
    EXPECT_FALSE(isScrollAnimationRunning(&area_));
    EXPECT_EQ(vertical->value(), 440);
    EXPECT_EQ(horizontal->value(), 180);
    EXPECT_FALSE(scrollRectToVisible(document_, QRectF(350, 500, 30, 40), true));

    horizontal->setValue(50);
    scrollPointAnimated(document_, QPointF(-50, 5000));  // limited to the scroll ranges
    EXPECT_TRUE(isScrollAnimationRunning(&area_) && settled());
    EXPECT_EQ(vertical->value(), 900);
    EXPECT_EQ(horizontal->value(), 0);
}

// Even a role the light palette may not mention is not the parent's; switched
// off, the view follows the parent's later changes again.
TEST(ViewExtensionsTest, LightAppearanceOverridesTheParentUntilSwitchedOff) {
    QWidget parent;
    QPalette dark;
    dark.setColor(QPalette::Link, QColor(1, 2, 3));
    parent.setPalette(dark);
    auto *view = new QWidget(&parent);
    useLightAquaAppearance(view, true);
    EXPECT_NE(view->palette().color(QPalette::Link), QColor(1, 2, 3));
    useLightAquaAppearance(view, false);
    dark.setColor(QPalette::Window, QColor(60, 0, 0));
    parent.setPalette(dark);
    EXPECT_EQ(view->palette().color(QPalette::Window), QColor(60, 0, 0));
}
