#pragma once

#include "StatusItem.h"

#include <QTimer>

class QSystemTrayIcon;

// The status item on QSystemTrayIcon. Tray hosts often start after the
// programs of a login, so until one is there the icon keeps asking and
// appears once it comes.
class TrayStatusItem : public StatusItem
{
    Q_OBJECT
public:
    explicit TrayStatusItem(QObject *parent = nullptr);
    ~TrayStatusItem() override;

    QIcon image() const override;
    void setImage(const QIcon &image) override;
    QIcon alternateImage() const override;
    void setAlternateImage(const QIcon &image) override;
    QMenu *menu() const override;
    void setMenu(QMenu *menu) override;
    void setHighlightMode(bool on) override;
    void showMessage(const QString &title, const QString &message) override;

    bool isShownInTray() const;

protected:
    void showBadgeAndToolTip() override;

private:
    void showWhenTrayExists();
    void activated(int reason);

    QSystemTrayIcon *_trayIcon;
    QIcon _image;
    QIcon _alternateImage;
    QTimer _trayWait;
    bool _loggedWaiting = false;
};
