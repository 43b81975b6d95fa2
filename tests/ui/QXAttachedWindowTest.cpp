#include "ui/QXAttachedWindow.h"

#include <QGuiApplication>
#include <QImage>
#include <QScreen>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

inline void PrintTo(const QRect &rect, std::ostream *out)
{
    *out << '(' << rect.x() << ", " << rect.y() << ' ' << rect.width() << 'x' << rect.height() << ')';
}

namespace {

using Side = QXAttachedWindow::Side;

// A 200x60 view; with the defaults (margin 2, arrow 16 high and 20 wide,
// radius 8) the shape is 204x64 plus 16 for the arrow, and an arrow at a
// corner sits 8 + 10 = 18 from it.
class AttachedWindowTest : public ::testing::Test
{
protected:
    std::unique_ptr<QXAttachedWindow> attach(QPointF point, Side side, qreal distance = 0, QWidget *window = nullptr)
    {
        return std::unique_ptr<QXAttachedWindow>(QXAttachedWindow::create(&view, point, window, side, distance));
    }

    static QList<QPointF> vertices(const QPainterPath &path)
    {
        QList<QPointF> points;
        for (int i = 0; i < path.elementCount(); ++i)
            points.append(path.elementAt(i));
        return points;
    }

    QWidget view;

    void SetUp() override { view.resize(200, 60); }
};

TEST_F(AttachedWindowTest, EachSidePlacesTheWindowBesideThePointWithRoomForTheArrowAndTheTipAtTheDistance)
{
    // Frames in screen coordinates (y grows downward) around the point
    // (400, 300) at distance 6.
    struct Case
    {
        Side side;
        QRect frame;
        QPoint viewOrigin;
    };
    const Case cases[] = {
        {Side::Left, {174, 268, 220, 64}, {2, 2}},
        {Side::Below, {298, 306, 204, 80}, {2, 18}},
        {Side::Right, {406, 268, 220, 64}, {18, 2}},
        {Side::Above, {298, 214, 204, 80}, {2, 2}},
        {Side::LeftExtendingUp, {174, 254, 220, 64}, {2, 2}},
        {Side::LeftExtendingDown, {174, 282, 220, 64}, {2, 2}},
        {Side::RightExtendingUp, {406, 254, 220, 64}, {18, 2}},
        {Side::RightExtendingDown, {406, 282, 220, 64}, {18, 2}},
        {Side::AboveExtendingLeft, {214, 214, 204, 80}, {2, 2}},
        {Side::AboveExtendingRight, {382, 214, 204, 80}, {2, 2}},
        {Side::BelowExtendingLeft, {214, 306, 204, 80}, {2, 18}},
        {Side::BelowExtendingRight, {382, 306, 204, 80}, {2, 18}},
    };
    const QPointF point(400, 300);
    for (const Case &c : cases) {
        for (bool arrow : {true, false}) {
            SCOPED_TRACE(testing::Message() << "side " << int(c.side) << (arrow ? " with" : " without") << " arrow");
            auto window = attach(point, c.side, 6);
            window->setHasArrow(arrow);
            window->setPoint(point, c.side);
            EXPECT_EQ(window->geometry(), c.frame);
            EXPECT_EQ(view.geometry(), QRect(c.viewOrigin, QSize(200, 60)));
            EXPECT_EQ(view.parentWidget(), window.get());

            // The point of the shape nearest to the point is the arrow's tip,
            // the distance away (less than a pixel more, edges sit on whole
            // pixels); without an arrow the edge stays the arrow's height back.
            qreal nearest = 1e9;
            for (QPointF vertex : vertices(window->backgroundPath()))
                nearest = std::min(
                    nearest, std::hypot(vertex.x() + c.frame.x() - point.x(), vertex.y() + c.frame.y() - point.y()));
            if (arrow) {
                EXPECT_GE(nearest, 6);
                EXPECT_LT(nearest, 7.5);
            } else {
                EXPECT_GE(nearest, 6 + 16);
            }
        }
    }
}

TEST_F(AttachedWindowTest, AutomaticSideTakesRoomBelowFirstThenRightAndKeepsBesideTheParentFrame)
{
    const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
    const int bottom = screen.y() + screen.height();
    const int right = screen.x() + screen.width();
    struct Case
    {
        const char *name;
        QRect parent; // empty: no parent window, the point is global
        QPoint point;
        Side expected;
    };
    const Case cases[] = {
        {"room below, away from the edges", {}, {screen.x() + 400, screen.y() + 100}, Side::Below},
        {"room below, near the screen's left edge", {}, {screen.x() + 50, screen.y() + 100}, Side::BelowExtendingRight},
        {"room below, near the screen's right edge", {}, {right - 20, screen.y() + 100}, Side::BelowExtendingLeft},
        {"below, inside the parent", {300, 100, 400, 300}, {200, 50}, Side::Below},
        {"below, near the parent's left edge", {300, 100, 400, 300}, {20, 50}, Side::BelowExtendingRight},
        {"below, near the parent's right edge", {300, 100, 400, 300}, {380, 50}, Side::BelowExtendingLeft},
        {"near the screen's bottom", {}, {screen.x() + 100, bottom - 20}, Side::RightExtendingUp},
        {"near the bottom of the screen and of the parent", {300, bottom - 200, 400, 200}, {20, 160}, Side::Right},
        {"near the top of a parent at the screen's bottom",
         {300, bottom - 70, 400, 70},
         {20, 5},
         Side::RightExtendingDown},
        {"in the screen's bottom right corner", {}, {right - 20, bottom - 20}, Side::LeftExtendingUp},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        QWidget parent(nullptr, Qt::FramelessWindowHint);
        parent.setGeometry(c.parent);
        auto window = attach(c.point, Side::Automatic, 0, c.parent.isEmpty() ? nullptr : &parent);
        EXPECT_EQ(int(window->side()), int(c.expected));
    }
}

TEST_F(AttachedWindowTest, OutsideItsShapeTheWindowIsCutAwayAndTheArrowIsThereOnlyWhenAsked)
{
    for (bool arrow : {true, false}) {
        SCOPED_TRACE(arrow ? "with arrow" : "without arrow");
        auto window = attach({400, 300}, Side::Below);
        window->setHasArrow(arrow);
        // The arrow's tip is at (102, 1), the top edge at y 17; clicks beside the shape reach what lies below it.
        EXPECT_TRUE(window->mask().contains(QPoint(102, 40)));
        EXPECT_FALSE(window->mask().contains(QPoint(0, 0)));
        EXPECT_EQ(window->mask().contains(QPoint(102, 10)), arrow);
        view.hide();
        const QImage image = window->grab().toImage();
        EXPECT_EQ(image.pixelColor(0, 0).alpha(), 0);
        EXPECT_EQ(image.pixelColor(102, 10).alpha() > 0, arrow);
    }
}

// A window asked for without a view crashed; closing a window deleted the view it showed.
TEST_F(AttachedWindowTest, ThereIsNoWindowWithoutAViewAndTheViewOutlivesItsWindow)
{
    EXPECT_EQ(QXAttachedWindow::create(nullptr, {400, 300}, Side::Right, 10), nullptr);

    attach({400, 300}, Side::Right).reset();
    EXPECT_EQ(view.parentWidget(), nullptr);
    // And it serves the next window.
    auto next = attach({400, 300}, Side::Left);
    EXPECT_EQ(view.parentWidget(), next.get());
}

} // namespace
