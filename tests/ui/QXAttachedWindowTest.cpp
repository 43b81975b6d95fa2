#include "ui/QXAttachedWindow.h"

#include <QImage>
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
// radius 8) the shape is 204x64 plus 16 for the arrow.
class AttachedWindowTest : public ::testing::Test
{
protected:
    std::unique_ptr<QXAttachedWindow> attach(QPointF point, Side side, qreal distance = 0)
    {
        return std::unique_ptr<QXAttachedWindow>(QXAttachedWindow::create(&view, point, nullptr, side, distance));
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

TEST_F(AttachedWindowTest, OnTheRightTheWindowSitsBesideThePointWithTheArrowsTipAtTheDistance)
{
    // Around the point (400, 300) at distance 6, in screen coordinates.
    const QPointF point(400, 300);
    auto window = attach(point, Side::Right, 6);
    EXPECT_EQ(window->geometry(), QRect(406, 268, 220, 64));
    EXPECT_EQ(view.geometry(), QRect(QPoint(18, 2), QSize(200, 60)));
    EXPECT_EQ(view.parentWidget(), window.get());

    // The point of the shape nearest to the point is the arrow's tip, the
    // distance away (less than a pixel more, edges sit on whole pixels).
    qreal nearest = 1e9;
    for (QPointF vertex : vertices(window->backgroundPath()))
        nearest = std::min(nearest, std::hypot(vertex.x() + 406 - point.x(), vertex.y() + 268 - point.y()));
    EXPECT_GE(nearest, 6);
    EXPECT_LT(nearest, 7.5);
}

TEST_F(AttachedWindowTest, TheShapeIsFilledBorderedAndCutOutAroundTheArrow)
{
    auto window = attach({400, 300}, Side::Below);
    window->setBorderColor(Qt::red);
    window->setBackgroundColor(Qt::blue);
    window->setBorderWidth(2);
    view.hide();
    const QImage image = window->grab().toImage();
    // Top edge at y 17; the arrow's tip at (102, 1).
    EXPECT_EQ(image.pixelColor(102, 40), QColor(Qt::blue));
    EXPECT_EQ(image.pixelColor(60, 18), QColor(Qt::red));
    // The border's outer half is clipped away.
    EXPECT_EQ(image.pixelColor(60, 15).alpha(), 0);
    EXPECT_EQ(image.pixelColor(0, 0).alpha(), 0);
    EXPECT_GT(image.pixelColor(102, 10).alpha(), 0);
    // Outside the shape the window is cut away, also for clicks.
    EXPECT_TRUE(window->mask().contains(QPoint(102, 40)));
    EXPECT_TRUE(window->mask().contains(QPoint(102, 10)));
    EXPECT_FALSE(window->mask().contains(QPoint(0, 0)));
}

TEST_F(AttachedWindowTest, ThereIsNoWindowWithoutAViewAndTheViewOutlivesItsWindow)
{
    EXPECT_EQ(QXAttachedWindow::create(nullptr, {400, 300}), nullptr);
    EXPECT_EQ(QXAttachedWindow::create(nullptr, {400, 300}, Side::Right, 10), nullptr);

    attach({400, 300}, Side::Right).reset();
    EXPECT_EQ(view.parentWidget(), nullptr);
    // And it serves the next window.
    auto next = attach({400, 300}, Side::Left);
    EXPECT_EQ(view.parentWidget(), next.get());
}

} // namespace
