#include "TrayStatusItem.h"

#include "SystemLog.h"

#include <QCursor>
#include <QMenu>
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
    return _trayIcon->icon();
}

void TrayStatusItem::setImage(const QIcon &image)
{
    _trayIcon->setIcon(image);
    if (!_trayIcon->isVisible())
        showWhenTrayExists();
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
