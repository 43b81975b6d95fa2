#include "FreedesktopNotificationCenter.h"

#include "platform/StatusItem.h"
#include "platform/SystemLog.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>

const QString FreedesktopNotificationCenter::serviceName = QStringLiteral("org.freedesktop.Notifications");
const QString FreedesktopNotificationCenter::objectPath = QStringLiteral("/org/freedesktop/Notifications");
const QString FreedesktopNotificationCenter::applicationName = QStringLiteral("KorvaneVarden");
const QString FreedesktopNotificationCenter::iconName = QStringLiteral(KORVANE_AGENT_ID);

namespace {

const QString defaultAction = QStringLiteral("default");
// Servers that never report a close must not make the list grow without end.
constexpr qsizetype rememberedIds = 64;

// Errors that only an owner appearing on the bus can cure.
bool meansNoService(const QDBusError &error)
{
    return error.type() == QDBusError::ServiceUnknown || error.type() == QDBusError::Disconnected
           || error.name().startsWith(QStringLiteral("org.freedesktop.DBus.Error.Spawn."));
}

} // namespace

FreedesktopNotificationCenter::FreedesktopNotificationCenter(const QDBusConnection &bus, QObject *parent)
    : UserNotificationCenter(parent)
    , _bus(bus)
    , _serviceMissing(!bus.isConnected())
{
    if (_serviceMissing) {
        _missingReason = QStringLiteral("no session bus: %1").arg(_bus.lastError().message());
        return;
    }
    auto *owners = new QDBusServiceWatcher(serviceName, _bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(owners, &QDBusServiceWatcher::serviceOwnerChanged, this,
            &FreedesktopNotificationCenter::serviceOwnerChanged);
    // Naming the service makes Qt hear only its current owner, whoever that is.
    const bool listening = _bus.connect(serviceName, objectPath, serviceName, QStringLiteral("ActionInvoked"), this,
                                        SLOT(actionInvoked(uint, QString)))
                           && _bus.connect(serviceName, objectPath, serviceName, QStringLiteral("NotificationClosed"),
                                           this, SLOT(notificationClosed(uint, uint)));
    if (!listening)
        SystemLog::log(QStringLiteral("cannot hear clicks on notifications (%1)").arg(_bus.lastError().message()));
}

FreedesktopNotificationCenter::~FreedesktopNotificationCenter() = default;

bool FreedesktopNotificationCenter::canDeliver() const
{
    return !_serviceMissing || _trayItem;
}

void FreedesktopNotificationCenter::deliverNotification(const QString &title, const QString &informativeText)
{
    if (_serviceMissing) {
        showInTray(title, informativeText);
        return;
    }
    QDBusMessage notify =
        QDBusMessage::createMethodCall(serviceName, objectPath, serviceName, QStringLiteral("Notify"));
    const QVariantMap hints{{QStringLiteral("sound-name"), QStringLiteral("message-new-instant")},
                            {QStringLiteral("desktop-entry"), iconName}};
    notify << applicationName << 0u << iconName << title << informativeText << QStringList{defaultAction, QString()}
           << hints << -1;
    auto *call = new QDBusPendingCallWatcher(_bus.asyncCall(notify, callTimeoutMs), this);
    connect(call, &QDBusPendingCallWatcher::finished, this,
            [this, title, informativeText](QDBusPendingCallWatcher *finished) {
                notifyFinished(finished, title, informativeText);
            });
}

void FreedesktopNotificationCenter::setFallbackStatusItem(StatusItem *item)
{
    if (_trayItem)
        disconnect(_trayItem, &StatusItem::messageClicked, this, &UserNotificationCenter::activated);
    _trayItem = item;
    // The next message says which road notifications take now.
    _loggedMissing = false;
    if (item)
        connect(item, &StatusItem::messageClicked, this, &UserNotificationCenter::activated);
}

bool FreedesktopNotificationCenter::isServiceMissing() const
{
    return _serviceMissing;
}

void FreedesktopNotificationCenter::actionInvoked(uint id, const QString &actionKey)
{
    // Forgetting the id makes the close or a repeated signal that some
    // servers send after the click count for nothing.
    if (actionKey != defaultAction || !_shownIds.removeOne(id))
        return;
    emit activated();
}

void FreedesktopNotificationCenter::notificationClosed(uint id, uint)
{
    if (_shownIds.removeOne(id))
        emit closed();
}

void FreedesktopNotificationCenter::serviceOwnerChanged(const QString &, const QString &, const QString &newOwner)
{
    // Ids are counted per server: a new one hands ours to other programs.
    _shownIds.clear();
    // A server that left may still be started by the next call, so only a
    // failed call makes it missing.
    if (!newOwner.isEmpty()) {
        _serviceMissing = false;
        _loggedMissing = false;
    }
}

void FreedesktopNotificationCenter::notifyFinished(QDBusPendingCallWatcher *call, const QString &title,
                                                   const QString &informativeText)
{
    call->deleteLater();
    const QDBusPendingReply<uint> reply = *call;
    if (!reply.isError()) {
        remember(reply.value());
        return;
    }
    if (meansNoService(reply.error())) {
        _serviceMissing = true;
        _missingReason = reply.error().message();
    } else {
        SystemLog::log(
            QStringLiteral("the notification service did not show a notification%1 (%2)")
                .arg(_trayItem ? QStringLiteral(": it goes to the tray icon") : QString(), reply.error().message()));
    }
    showInTray(title, informativeText);
}

void FreedesktopNotificationCenter::showInTray(const QString &title, const QString &informativeText)
{
    if (_serviceMissing && !_loggedMissing) {
        _loggedMissing = true;
        SystemLog::log(
            _trayItem
                ? QStringLiteral("no notification service: notifications go to the tray icon (%1)").arg(_missingReason)
                : QStringLiteral("no notification service and no tray icon: notifications are not shown (%1)")
                      .arg(_missingReason));
    }
    if (_trayItem)
        _trayItem->showMessage(title, informativeText);
}

void FreedesktopNotificationCenter::remember(uint id)
{
    if (_shownIds.size() == rememberedIds)
        _shownIds.removeFirst();
    _shownIds.append(id);
}
