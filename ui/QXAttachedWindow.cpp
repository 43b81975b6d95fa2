#include "QXAttachedWindow.h"

#include <QBitmap>
#include <QGuiApplication>
#include <QPainter>
#include <QScreen>
#include <QTransform>

#include <algorithm>
#include <cmath>

namespace {

using Side = QXAttachedWindow::Side;

// The placement rules think y-up, with the origin at the bottom left; Qt is
// y-down. Mirroring about the line y = height / 2 maps one onto the other
// and back: height 0 for global coordinates, the window's height for its own.
QPointF mirrored(QPointF point, qreal height = 0)
{
    return {point.x(), height - point.y()};
}

QRectF mirrored(const QRectF &rect, qreal height = 0)
{
    return {rect.x(), height - rect.y() - rect.height(), rect.width(), rect.height()};
}

bool isOneOf(Side side, std::initializer_list<Side> sides)
{
    return std::find(sides.begin(), sides.end(), side) != sides.end();
}

enum class Edge { Top, Right, Bottom, Left };

// A quarter circle from the current point round the corner to `to`, both a
// radius away from it; nothing where the corner is sharp.
void appendCorner(QPainterPath &path, QPointF corner, QPointF to)
{
    const QPointF from = path.currentPosition();
    if (from == to)
        return;
    // Bezier control points of a circular quarter arc.
    constexpr qreal k = 0.5522847498;
    path.cubicTo(from + k * (corner - from), to + k * (corner - to), to);
}

} // namespace

QXAttachedWindow *QXAttachedWindow::create(QWidget *view, QPointF point, QWidget *window, Side side, qreal distance)
{
    return view ? new QXAttachedWindow(view, point, window, side, distance) : nullptr;
}

QXAttachedWindow *QXAttachedWindow::create(QWidget *view, QPointF point, QWidget *window, qreal distance)
{
    return create(view, point, window, Side::Automatic, distance);
}

QXAttachedWindow *QXAttachedWindow::create(QWidget *view, QPointF point, Side side, qreal distance)
{
    return create(view, point, nullptr, side, distance);
}

QXAttachedWindow *QXAttachedWindow::create(QWidget *view, QPointF point, qreal distance)
{
    return create(view, point, nullptr, Side::Automatic, distance);
}

QXAttachedWindow::QXAttachedWindow(QWidget *view, QPointF point, QWidget *window, Side side, qreal distance)
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowDoesNotAcceptFocus)
    , _view(view)
    , _window(window)
    , _point(point)
    , _side(side)
    , _distance(distance)
{
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_ShowWithoutActivating);
    resize(view->size());
    view->setParent(this);
    view->show();

    if (_side == Side::Automatic)
        _side = _bestSideForAutomaticPosition();
    _updateGeometry();
    _updateBackground();
}

QXAttachedWindow::~QXAttachedWindow()
{
    if (_view && _view->parentWidget() == this)
        _view->setParent(nullptr);
}

void QXAttachedWindow::setPoint(QPointF point, Side side)
{
    _point = point;
    _side = side;
    if (_side == Side::Automatic)
        _side = _bestSideForAutomaticPosition();
    _redisplay();
}

QRectF QXAttachedWindow::viewFrame() const
{
    return mirrored(_viewFrame, height());
}

void QXAttachedWindow::setBackgroundColor(const QColor &color)
{
    if (_QXBackgroundColor == QBrush(color))
        return;
    _QXBackgroundColor = QBrush(color);
    _updateBackground();
}

void QXAttachedWindow::setBackgroundImage(const QPixmap &image)
{
    if (image.isNull())
        return;
    _QXBackgroundColor = QBrush(image);
    _updateBackground();
}

void QXAttachedWindow::setBorderColor(const QColor &color)
{
    if (_borderColor == color)
        return;
    _borderColor = color;
    _updateBackground();
}

void QXAttachedWindow::setBorderWidth(qreal width)
{
    if (_borderWidth == width)
        return;
    _borderWidth = std::min(width, _viewMargin);
    _updateBackground();
}

void QXAttachedWindow::setViewMargin(qreal margin)
{
    if (_viewMargin == margin)
        return;
    _viewMargin = std::max(margin, qreal(0));
    // The radius' bound depends on the margin.
    setCornerRadius(_cornerRadius);
}

void QXAttachedWindow::setArrowBaseWidth(qreal width)
{
    qreal largest = std::min(_viewFrame.width(), _viewFrame.height()) + 2 * _viewMargin - _cornerRadius;
    if (_drawsRoundCornerBesideArrow)
        largest -= _cornerRadius;
    _arrowBaseWidth = std::min(width, largest);
    _redisplay();
}

void QXAttachedWindow::setArrowHeight(qreal height)
{
    if (_arrowHeight == height)
        return;
    _arrowHeight = height;
    _redisplay();
}

void QXAttachedWindow::setHasArrow(bool flag)
{
    if (_hasArrow == flag)
        return;
    _hasArrow = flag;
    _updateBackground();
}

void QXAttachedWindow::setCornerRadius(qreal radius)
{
    const qreal largest = (std::min(_viewFrame.width(), _viewFrame.height()) + 2 * _viewMargin - _arrowBaseWidth) / 2;
    _cornerRadius = std::max(std::min(radius, largest), qreal(0));
    // The arrow's bound depends on the radius.
    setArrowBaseWidth(_arrowBaseWidth);
}

void QXAttachedWindow::setDrawsRoundCornerBesideArrow(bool flag)
{
    if (_drawsRoundCornerBesideArrow == flag)
        return;
    _drawsRoundCornerBesideArrow = flag;
    _redisplay();
}

qreal QXAttachedWindow::_arrowInset() const
{
    return (_drawsRoundCornerBesideArrow ? _cornerRadius : 0) + _arrowBaseWidth / 2;
}

QPointF QXAttachedWindow::_referencePoint() const
{
    return mirrored(_window ? _window->mapToGlobal(_point) : _point);
}

QXAttachedWindow::Side QXAttachedWindow::_bestSideForAutomaticPosition() const
{
    QScreen *screen = _window ? _window->screen() : nullptr;
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QRectF area = screen ? mirrored(QRectF(screen->availableGeometry())) : QRectF();
    const qreal sx = area.x(), sy = area.y(), sw = area.width(), sh = area.height();
    const QPointF p = _referencePoint();
    const qreal px = p.x(), py = p.y();
    const qreal w = _view->width() + 2 * _viewMargin;
    const qreal h = _view->height() + 2 * _viewMargin;
    const qreal g = _arrowHeight + _distance;

    Side side = Side::Below;
    if (py - h - g >= sy)
        side = Side::Below;
    else if (px + w + g < sx + sw)
        side = Side::Right;
    else if (px - w - g >= sx)
        side = Side::Left;
    else if (py + h + g < sy + sh)
        side = Side::Above;

    const QRectF frame = _window ? mirrored(QRectF(_window->frameGeometry())) : area;
    const qreal i = _arrowInset();
    const qreal frameBottom = frame.y(), frameTop = frame.y() + frame.height();
    const qreal frameLeft = frame.x(), frameRight = frame.x() + frame.width();
    if (side == Side::Left || side == Side::Right) {
        const bool right = side == Side::Right;
        if (frameBottom > py - h / 2 && sy + sh > py + h - i)
            return right ? Side::RightExtendingUp : Side::LeftExtendingUp;
        if (py + h / 2 >= frameTop && py - h + i >= sy)
            return right ? Side::RightExtendingDown : Side::LeftExtendingDown;
    } else {
        const bool below = side == Side::Below;
        if (frameLeft > px - w / 2 && sx + sw > px + w - i)
            return below ? Side::BelowExtendingRight : Side::AboveExtendingRight;
        if (px + w / 2 >= frameRight && px - w + i >= sx)
            return below ? Side::BelowExtendingLeft : Side::AboveExtendingLeft;
    }
    return side;
}

void QXAttachedWindow::_updateGeometry()
{
    const QSizeF viewSize = _view->size();
    _viewFrame = QRectF(QPointF(_viewMargin, _viewMargin), viewSize);
    QSizeF size = viewSize + QSizeF(2 * _viewMargin, 2 * _viewMargin);

    // Room for the arrow is left whether it is drawn or not.
    const qreal t = _arrowHeight;
    if (isOneOf(_side, {Side::Left, Side::LeftExtendingUp, Side::LeftExtendingDown})) {
        size.rwidth() += t;
    } else if (isOneOf(_side, {Side::Right, Side::RightExtendingUp, Side::RightExtendingDown})) {
        size.rwidth() += t;
        _viewFrame.translate(t, 0);
    } else if (isOneOf(_side, {Side::Above, Side::AboveExtendingLeft, Side::AboveExtendingRight})) {
        size.rheight() += t;
        _viewFrame.translate(0, t);
    } else {
        size.rheight() += t;
    }

    const QPointF p = _referencePoint();
    const qreal w = size.width(), h = size.height(), i = _arrowInset(), d = _distance;
    QPointF origin;
    switch (_side) {
    case Side::Left:
        origin = {p.x() - w - d, p.y() - h / 2};
        break;
    case Side::Below:
        origin = {p.x() - w / 2, p.y() - h - d};
        break;
    case Side::Right:
        origin = {p.x() + d, p.y() - h / 2};
        break;
    case Side::Above:
        origin = {p.x() - w / 2, p.y() + d};
        break;
    case Side::LeftExtendingUp:
        origin = {p.x() - w - d, p.y() - i};
        break;
    case Side::LeftExtendingDown:
        origin = {p.x() - w - d, p.y() - h + i};
        break;
    case Side::RightExtendingUp:
        origin = {p.x() + d, p.y() - i};
        break;
    case Side::RightExtendingDown:
        origin = {p.x() + d, p.y() - h + i};
        break;
    case Side::AboveExtendingLeft:
        origin = {p.x() - w + i, p.y() + d};
        break;
    case Side::AboveExtendingRight:
        origin = {p.x() - i, p.y() + d};
        break;
    case Side::BelowExtendingLeft:
        origin = {p.x() - w + i, p.y() - h - d};
        break;
    case Side::BelowExtendingRight:
        origin = {p.x() - i, p.y() - h - d};
        break;
    case Side::Automatic:
        break;
    }

    setGeometry(mirrored(QRectF(origin, size)).toRect());
    _view->setGeometry(mirrored(_viewFrame, h).toRect());
}

QPainterPath QXAttachedWindow::_makeBackgroundPath() const
{
    const qreal r = _cornerRadius, a = _arrowBaseWidth, t = _arrowHeight;
    const QRectF area = _viewFrame.adjusted(-_viewMargin, -_viewMargin, _viewMargin, _viewMargin);
    // On whole pixels, so that a one-pixel line stays sharp.
    const qreal left = std::ceil(area.x() + 0.5);
    const qreal right = std::floor(area.x() + area.width() - 0.5);
    const qreal bottom = std::ceil(area.y() + 0.5);
    const qreal top = std::floor(area.y() + area.height() - 0.5);
    const qreal midX = area.center().x(), midY = area.center().y();

    // A corner beside an arrow that sits at it may be sharp.
    const auto radius = [&](Side one, Side other) {
        return r > 0 && (_drawsRoundCornerBesideArrow || (_side != one && _side != other)) ? r : 0;
    };
    const qreal topLeft = radius(Side::RightExtendingDown, Side::BelowExtendingRight);
    const qreal topRight = radius(Side::LeftExtendingDown, Side::BelowExtendingLeft);
    const qreal bottomRight = radius(Side::LeftExtendingUp, Side::AboveExtendingLeft);
    const qreal bottomLeft = radius(Side::RightExtendingUp, Side::AboveExtendingRight);

    QPainterPath path(QPointF(left + topLeft, top));
    const auto arrow = [&](Edge edge) {
        if (!_hasArrow)
            return;
        const QPointF c = path.currentPosition();
        switch (edge) {
        case Edge::Top:
            path.lineTo(c.x() + a / 2, c.y() + t);
            path.lineTo(c.x() + a, c.y());
            break;
        case Edge::Right:
            path.lineTo(c.x() + t, c.y() - a / 2);
            path.lineTo(c.x(), c.y() - a);
            break;
        case Edge::Bottom:
            path.lineTo(c.x() - a / 2, c.y() - t);
            path.lineTo(c.x() - a, c.y());
            break;
        case Edge::Left:
            path.lineTo(c.x() - t, c.y() + a / 2);
            path.lineTo(c.x(), c.y() + a);
            break;
        }
    };

    // Clockwise: top edge left to right.
    if (_side == Side::BelowExtendingRight) {
        arrow(Edge::Top);
    } else if (_side == Side::Below) {
        path.lineTo(midX - a / 2, top);
        arrow(Edge::Top);
    } else if (_side == Side::BelowExtendingLeft) {
        path.lineTo(right - topRight - a, top);
        arrow(Edge::Top);
    }
    path.lineTo(right - topRight, top);
    appendCorner(path, {right, top}, {right, top - topRight});

    // Right edge, top to bottom.
    if (_side == Side::LeftExtendingDown) {
        arrow(Edge::Right);
    } else if (_side == Side::Left) {
        path.lineTo(right, midY + a / 2);
        arrow(Edge::Right);
    } else if (_side == Side::LeftExtendingUp) {
        path.lineTo(right, bottom + bottomRight + a);
        arrow(Edge::Right);
    }
    path.lineTo(right, bottom + bottomRight);
    appendCorner(path, {right, bottom}, {right - bottomRight, bottom});

    // Bottom edge, right to left.
    if (_side == Side::AboveExtendingLeft) {
        arrow(Edge::Bottom);
    } else if (_side == Side::Above) {
        path.lineTo(midX + a / 2, bottom);
        arrow(Edge::Bottom);
    } else if (_side == Side::AboveExtendingRight) {
        path.lineTo(left + bottomLeft + a, bottom);
        arrow(Edge::Bottom);
    }
    path.lineTo(left + bottomLeft, bottom);
    appendCorner(path, {left, bottom}, {left, bottom + bottomLeft});

    // Left edge, bottom to top.
    if (_side == Side::RightExtendingUp) {
        arrow(Edge::Left);
    } else if (_side == Side::Right) {
        path.lineTo(left, midY - a / 2);
        arrow(Edge::Left);
    } else if (_side == Side::RightExtendingDown) {
        path.lineTo(left, top - topLeft - a);
        arrow(Edge::Left);
    }
    path.lineTo(left, top - topLeft);
    appendCorner(path, {left, top}, {left + topLeft, top});
    path.closeSubpath();

    return QTransform(1, 0, 0, -1, 0, height()).map(path);
}

void QXAttachedWindow::_updateBackground()
{
    _backgroundPath = _makeBackgroundPath();
    // Without a compositor the see-through parts would show black: the mask
    // cuts them away, keeping a pixel around the shape for its smooth edge.
    QBitmap mask(size());
    mask.fill(Qt::color0);
    QPainter painter(&mask);
    painter.setPen(QPen(Qt::color1, 2));
    painter.setBrush(Qt::color1);
    painter.drawPath(_backgroundPath);
    painter.end();
    setMask(mask);
    update();
}

void QXAttachedWindow::_redisplay()
{
    if (_resizing)
        return;
    _resizing = true;
    _updateGeometry();
    _updateBackground();
    _resizing = false;
}

bool QXAttachedWindow::event(QEvent *event)
{
    if (event->type() == QEvent::MouseButtonPress)
        emit didBecomeKey();
    return QWidget::event(event);
}

void QXAttachedWindow::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setClipPath(_backgroundPath);
    painter.fillPath(_backgroundPath, _QXBackgroundColor);
    if (_borderWidth > 0) {
        // Twice as wide, since the clip keeps only the inner half.
        QPen pen(_borderColor, 2 * _borderWidth);
        pen.setJoinStyle(Qt::RoundJoin);
        painter.strokePath(_backgroundPath, pen);
    }
}

void QXAttachedWindow::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    _redisplay();
}
