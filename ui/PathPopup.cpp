#include "PathPopup.h"

#include "InfectedItemsWindow.h"
#include "QXAttachedWindow.h"
#include "QXTInfectedViewArrayController.h"
#include "QXTTableView.h"

#include <QEvent>
#include <QLabel>
#include <QRegularExpression>

namespace {

constexpr int floaterWidth = 320;
constexpr int textMargin = 8;
constexpr int initialTextHeight = 24;

// Word wrap breaks a path at "/" and spaces only. A name too long for a
// line gets invisible break opportunities between its letters, so that no
// part of it is cut off.
QString breakableText(const QString &path, const QFontMetrics &metrics, int width)
{
    static const QRegularExpression word(QStringLiteral("[^/\\s]+"));
    QString text;
    qsizetype done = 0;
    QRegularExpressionMatchIterator words = word.globalMatch(path);
    while (words.hasNext()) {
        const QRegularExpressionMatch match = words.next();
        text += path.mid(done, match.capturedStart() - done);
        const QString name = match.captured();
        if (metrics.horizontalAdvance(name) <= width) {
            text += name;
        } else {
            for (qsizetype i = 0; i < name.size(); ++i) {
                if (i > 0 && !name.at(i).isLowSurrogate() && !name.at(i).isMark())
                    text += QChar(0x200B);
                text += name.at(i);
            }
        }
        done = match.capturedEnd();
    }
    return text + path.mid(done);
}

} // namespace

PathPopup::PathPopup(InfectedItemsWindow *window, QObject *parent)
    : QObject(parent)
    , _window(window)
    , _table(window->tableView())
    , _popupFloaterView(std::make_unique<QWidget>())
    , _popupFloaterTextField(new QLabel(_popupFloaterView.get()))
{
    _popupFloaterView->resize(floaterWidth, initialTextHeight + 2 * textMargin);
    _popupFloaterTextField->setGeometry(textMargin, textMargin, floaterWidth - 2 * textMargin, initialTextHeight);
    _popupFloaterTextField->setTextFormat(Qt::PlainText);
    _popupFloaterTextField->setWordWrap(true);
    _popupFloaterTextField->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    // Light text on the popup's dark shape.
    QPalette palette = _popupFloaterTextField->palette();
    palette.setColor(QPalette::WindowText, Qt::white);
    _popupFloaterTextField->setPalette(palette);

    // The arrow stays on the row when the window moves or the table's size changes.
    _window->installEventFilter(this);
    _table->installEventFilter(this);
}

PathPopup::~PathPopup()
{
    hide();
}

QXAttachedWindow *PathPopup::showForSelectedRow()
{
    hide();
    QXTInfectedViewArrayController *list = _window->dataSource();
    const QList<int> rows = list->selectionIndexes();
    if (rows.isEmpty())
        return nullptr;
    _row = rows.first();

    // The view grows or shrinks by as much as the wrapped path needs.
    QLabel *field = _popupFloaterTextField;
    const QString path = list->arrangedObjects().value(_row).value(QStringLiteral("filePath")).toString();
    field->setText(breakableText(path, field->fontMetrics(), field->width()));
    const int needed = field->heightForWidth(field->width());
    _popupFloaterView->resize(_popupFloaterView->width(), _popupFloaterView->height() + needed - field->height());
    field->resize(field->width(), needed);

    _window->tableView()->scrollTo(list->index(_row, 1));
    _attachedWindow = QXAttachedWindow::create(_popupFloaterView.get(), pointBesideRow(_row), _window,
                                               QXAttachedWindow::Side::Right, 10.0);
    // A child window: kept above the infected-items window.
    _attachedWindow->setParent(_window, _attachedWindow->windowFlags());
    _attachedWindow->setHasArrow(true);
    _attachedWindow->setDrawsRoundCornerBesideArrow(true);
    _attachedWindow->setArrowBaseWidth(20.0);
    _attachedWindow->setArrowHeight(16.0);
    _attachedWindow->show();
    return _attachedWindow;
}

void PathPopup::hide()
{
    if (!_attachedWindow)
        return;
    _attachedWindow->hide();
    // Hands the floater view back for the next popup.
    delete _attachedWindow;
    _row = -1;
}

QPointF PathPopup::pointBesideRow(int row) const
{
    QXTTableView *table = _window->tableView();
    const QRectF cell = table->visualRect(table->model()->index(row, 1));
    const qreal x = table->mapTo(_window, QPointF(table->width() / 2.0, 0)).x();
    const qreal y = table->viewport()->mapTo(_window, cell.center()).y();
    return {x, y};
}

bool PathPopup::eventFilter(QObject *watched, QEvent *event)
{
    const bool moved = watched == _window && event->type() == QEvent::Move;
    const bool resized = watched == _table && event->type() == QEvent::Resize;
    if (_attachedWindow && (moved || resized))
        _attachedWindow->setPoint(pointBesideRow(_row), QXAttachedWindow::Side::Right);
    return QObject::eventFilter(watched, event);
}
