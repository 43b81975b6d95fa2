#include "TrayStatusItem.h"

#include "SystemLog.h"

#include <QMenu>
#include <QSystemTrayIcon>

TrayStatusItem::TrayStatusItem(QObject *parent)
    : StatusItem(parent)
    , _trayIcon(new QSystemTrayIcon(this))
{
    connect(_trayIcon, &QSystemTrayIcon::messageClicked, this, &StatusItem::messageClicked);
    _trayWait.setInterval(2000);
    connect(&_trayWait, &QTimer::timeout, this, &TrayStatusItem::showWhenTrayExists);
}

TrayStatusItem::~TrayStatusItem() = default;

QIcon TrayStatusItem::image() const { return _trayIcon->icon(); }

void TrayStatusItem::setImage(const QIcon &image)
{
    _trayIcon->setIcon(image);
    if (!_trayIcon->isVisible())
        showWhenTrayExists();
}

QIcon TrayStatusItem::alternateImage() const { return _alternateImage; }
void TrayStatusItem::setAlternateImage(const QIcon &image) { _alternateImage = image; }
QMenu *TrayStatusItem::menu() const { return _trayIcon->contextMenu(); }
void TrayStatusItem::setMenu(QMenu *menu) { _trayIcon->setContextMenu(menu); }

void TrayStatusItem::setHighlightMode(bool)
{
    // The tray host draws the pressed state itself.
}

void TrayStatusItem::showMessage(const QString &title, const QString &message)
{
    _trayIcon->showMessage(title, message, QSystemTrayIcon::Warning);
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
