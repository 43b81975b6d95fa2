#pragma once

#include <QBrush>
#include <QColor>
#include <QPainterPath>
#include <QPixmap>
#include <QPointF>
#include <QPointer>
#include <QRectF>
#include <QWidget>

// A frameless, translucent window that holds one view and places itself
// beside a point, drawing a rounded shape with an arrow that points at it.
// The point is in the coordinates of the given window, or global without
// one. The window shows the view but does not own it: it hands the view
// back (without a parent) when it goes away.
class QXAttachedWindow : public QWidget
{
    Q_OBJECT
public:
    // Where the window lies relative to the point; the arrow is on the
    // edge that faces the point, at its middle or near one end.
    enum class Side : qint32 {
        Left = 0,
        Below = 1,
        Right = 2,
        Above = 3,
        LeftExtendingUp = 4,
        LeftExtendingDown = 5,
        RightExtendingUp = 6,
        RightExtendingDown = 7,
        AboveExtendingLeft = 8,
        AboveExtendingRight = 9,
        BelowExtendingLeft = 10,
        BelowExtendingRight = 11,
        Automatic = 12,
    };

    // No window without a view.
    static QXAttachedWindow *create(QWidget *view, QPointF point, QWidget *window = nullptr,
                                    Side side = Side::Automatic, qreal distance = 0);
    static QXAttachedWindow *create(QWidget *view, QPointF point, QWidget *window, qreal distance);
    static QXAttachedWindow *create(QWidget *view, QPointF point, Side side, qreal distance = 0);
    static QXAttachedWindow *create(QWidget *view, QPointF point, qreal distance);
    ~QXAttachedWindow() override;

    void setPoint(QPointF point, Side side);
    QPointF point() const { return _point; }
    Side side() const { return _side; }
    qreal distance() const { return _distance; }
    QWidget *view() const { return _view; }
    QWidget *attachedToWindow() const { return _window; }

    QBrush windowBackgroundColor() const { return _QXBackgroundColor; }
    void setBackgroundColor(const QColor &color);
    // The fill becomes the image, tiled; a null image changes nothing.
    void setBackgroundImage(const QPixmap &image);
    QColor borderColor() const { return _borderColor; }
    void setBorderColor(const QColor &color);
    qreal borderWidth() const { return _borderWidth; }
    void setBorderWidth(qreal width);
    qreal viewMargin() const { return _viewMargin; }
    void setViewMargin(qreal margin);
    qreal arrowBaseWidth() const { return _arrowBaseWidth; }
    void setArrowBaseWidth(qreal width);
    qreal arrowHeight() const { return _arrowHeight; }
    void setArrowHeight(qreal height);
    bool hasArrow() const { return _hasArrow; }
    void setHasArrow(bool flag);
    qreal cornerRadius() const { return _cornerRadius; }
    void setCornerRadius(qreal radius);
    bool drawsRoundCornerBesideArrow() const { return _drawsRoundCornerBesideArrow; }
    void setDrawsRoundCornerBesideArrow(bool flag);

    // The shape as drawn, in the window's own coordinates.
    QPainterPath backgroundPath() const { return _backgroundPath; }
    // Where the view lies inside the window.
    QRectF viewFrame() const;

signals:
    // The user clicked into the window or it became active; receivers that
    // close it should do so queued, after the event.
    void didBecomeKey();

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    QXAttachedWindow(QWidget *view, QPointF point, QWidget *window, Side side, qreal distance);

    void _updateGeometry();
    void _updateBackground();
    void _redisplay();
    qreal _arrowInset() const;
    Side _bestSideForAutomaticPosition() const;
    QPointF _referencePoint() const;
    QPainterPath _makeBackgroundPath() const;

    QColor _borderColor = Qt::white;
    qreal _borderWidth = 2.0;
    qreal _viewMargin = 2.0;
    qreal _arrowBaseWidth = 20.0;
    qreal _arrowHeight = 16.0;
    bool _hasArrow = true;
    qreal _cornerRadius = 8.0;
    bool _drawsRoundCornerBesideArrow = true;
    QBrush _QXBackgroundColor = QColor::fromRgbF(0.1f, 0.1f, 0.1f, 0.95f);
    QPointer<QWidget> _view;
    QPointer<QWidget> _window;
    QPointF _point;
    Side _side;
    qreal _distance;
    // Kept in the placement rules' own y-up coordinates.
    QRectF _viewFrame;
    bool _resizing = false;
    QPainterPath _backgroundPath;
};
