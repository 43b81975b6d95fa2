#pragma once

#include "platform/UserNotificationCenter.h"

#include <QDBusConnection>
#include <QList>
#include <QPointer>

class QDBusPendingCallWatcher;

// Notifications through org.freedesktop.Notifications on the session bus,
// with a "default" action for the click. Where no service answers they go
// to the fallback status item's messages instead:
//  - no bus, or no owner of the name that the bus could start: every
//    notification goes to the tray until an owner appears;
//  - a Notify that fails otherwise or gets no answer within callTimeoutMs:
//    that one notification goes to the tray, the next tries the service again.
// Calls never wait on the main thread.
class FreedesktopNotificationCenter : public UserNotificationCenter
{
    Q_OBJECT
public:
    static const QString serviceName;
    static const QString objectPath;
    static const QString applicationName;
    // Icon-theme name, the same as the desktop entry's id.
    static const QString iconName;
    static constexpr int callTimeoutMs = 2000;

    explicit FreedesktopNotificationCenter(const QDBusConnection &bus = QDBusConnection::sessionBus(),
                                           QObject *parent = nullptr);
    ~FreedesktopNotificationCenter() override;

    bool canDeliver() const override;
    void deliverNotification(const QString &title, const QString &informativeText) override;
    void setFallbackStatusItem(StatusItem *item) override;

    // Whether notifications go straight to the tray until a service appears.
    bool isServiceMissing() const;

private slots:
    void actionInvoked(uint id, const QString &actionKey);
    void notificationClosed(uint id, uint reason);

private:
    void serviceOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void notifyFinished(QDBusPendingCallWatcher *call, const QString &title, const QString &informativeText);
    void showInTray(const QString &title, const QString &informativeText);
    void remember(uint id);

    QDBusConnection _bus;
    bool _serviceMissing;
    QString _missingReason;
    bool _loggedMissing = false;
    QPointer<StatusItem> _trayItem;
    // Ids of our notifications still on screen, oldest first.
    QList<uint> _shownIds;
};
