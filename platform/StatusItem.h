#pragma once

#include <QIcon>
#include <QObject>

class QMenu;

// The agent's icon in the panel's tray, with its menu.
class StatusItem : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
    ~StatusItem() override = default;

    // A new item in the system tray.
    static StatusItem *create(QObject *parent = nullptr);

    virtual QIcon image() const = 0;
    virtual void setImage(const QIcon &image) = 0;
    // Trays have no pressed look of their own; the image is kept for hosts
    // that ask for it.
    virtual QIcon alternateImage() const = 0;
    virtual void setAlternateImage(const QIcon &image) = 0;
    virtual QMenu *menu() const = 0;
    virtual void setMenu(QMenu *menu) = 0;
    virtual void setHighlightMode(bool on) = 0;
    // A message balloon from the tray icon itself: the fallback when no
    // notification service answers.
    virtual void showMessage(const QString &title, const QString &message) = 0;

    // A mark drawn over whatever image is shown, for the guard's status;
    // none while the icon is null.
    QIcon badge() const { return _badge; }
    void setBadge(const QIcon &badge)
    {
        _badge = badge;
        showBadgeAndToolTip();
    }
    QString toolTip() const { return _toolTip; }
    void setToolTip(const QString &text)
    {
        _toolTip = text;
        showBadgeAndToolTip();
    }

signals:
    void messageClicked();

protected:
    virtual void showBadgeAndToolTip() {}

private:
    QIcon _badge;
    QString _toolTip;
};
