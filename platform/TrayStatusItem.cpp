#include "TrayStatusItem.h"

#include "SystemLog.h"

#include <QCursor>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

TrayStatusItem::TrayStatusItem(QObject *parent)
    : StatusItem(parent)
    , _trayIcon(new QSystemTrayIcon(this))
{
    connect(_trayIcon, &QSystemTrayIcon::messageClicked, this, &StatusItem::messageClicked);
    connect(_trayIcon, &QSystemTrayIcon::activated, this, &TrayStatusItem::activated);
    _trayWait.setInterval(2000);
    connect(&_trayWait, &QTimer::timeout, this, &TrayStatusItem::showWhenTrayExists);
}

TrayStatusItem::~TrayStatusItem() = default;

QIcon TrayStatusItem::image() const
{
    return _image;
}

void TrayStatusItem::setImage(const QIcon &image)
{
    _image = image;
    showBadgeAndToolTip();
    if (!_trayIcon->isVisible())
        showWhenTrayExists();
}

void TrayStatusItem::showBadgeAndToolTip()
{
    _trayIcon->setToolTip(toolTip());
    if (badge().isNull() || _image.isNull()) {
        _trayIcon->setIcon(_image);
        return;
    }
    // The badge takes the lower right of the image, at each size a tray asks for.
    QIcon marked;
    for (int size : {16, 22, 24, 32, 48, 64}) {
        QPixmap pixmap = _image.pixmap(size, size);
        QPainter painter(&pixmap);
        const int mark = size * 3 / 5;
        painter.drawPixmap(size - mark, size - mark, badge().pixmap(mark, mark));
        painter.end();
        marked.addPixmap(pixmap);
    }
    _trayIcon->setIcon(marked);
}

QIcon TrayStatusItem::alternateImage() const
{
    return _alternateImage;
}
void TrayStatusItem::setAlternateImage(const QIcon &image)
{
    _alternateImage = image;
}
QMenu *TrayStatusItem::menu() const
{
    return _trayIcon->contextMenu();
}
void TrayStatusItem::setMenu(QMenu *menu)
{
    _trayIcon->setContextMenu(menu);
}

void TrayStatusItem::setHighlightMode(bool)
{
    // The tray host draws the pressed state itself.
}

void TrayStatusItem::showMessage(const QString &title, const QString &message)
{
    _trayIcon->showMessage(title, message, QSystemTrayIcon::Warning);
}

// Linux trays open the menu on a right click only; a left click activates
// the icon, and opens the same menu here.
void TrayStatusItem::activated(int reason)
{
    QMenu *menu = _trayIcon->contextMenu();
    if (reason == QSystemTrayIcon::Trigger && menu && !menu->isVisible())
        menu->popup(QCursor::pos());
}

bool TrayStatusItem::isShownInTray() const
{
    return _trayIcon->isVisible();
}

void TrayStatusItem::showWhenTrayExists()
{
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        _trayWait.stop();
        _trayIcon->show();
        return;
    }
    if (!_loggedWaiting) {
        _loggedWaiting = true;
        SystemLog::log(QStringLiteral("no system tray yet: the icon appears once a tray is there"));
    }
    if (!_trayWait.isActive())
        _trayWait.start();
}
