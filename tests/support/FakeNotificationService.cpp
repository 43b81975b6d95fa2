#include "FakeNotificationService.h"

#include <QDBusMessage>

namespace {
const QString serviceName = QStringLiteral("org.freedesktop.Notifications");
const QString objectPath = QStringLiteral("/org/freedesktop/Notifications");
} // namespace

FakeNotificationService::FakeNotificationService(const QDBusConnection &bus, QObject *parent)
    : QObject(parent)
    , _bus(bus)
{
    if (!_bus.registerObject(objectPath, this, QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals))
        return;
    _registered = _bus.registerService(serviceName);
    if (!_registered)
        _bus.unregisterObject(objectPath);
}

FakeNotificationService::~FakeNotificationService()
{
    unregister();
}

bool FakeNotificationService::isRegistered() const
{
    return _registered;
}

void FakeNotificationService::unregister()
{
    if (!_registered)
        return;
    _registered = false;
    _bus.unregisterService(serviceName);
    _bus.unregisterObject(objectPath);
}

void FakeNotificationService::setAnswer(Answer answer)
{
    _answer = answer;
}

QList<FakeNotificationService::Notification> FakeNotificationService::notifications() const
{
    return _notifications;
}

void FakeNotificationService::invokeAction(uint id, const QString &actionKey)
{
    emit ActionInvoked(id, actionKey);
}

void FakeNotificationService::close(uint id, uint reason)
{
    emit NotificationClosed(id, reason);
}

uint FakeNotificationService::Notify(const QString &appName, uint replacesId, const QString &appIcon,
                                     const QString &summary, const QString &body, const QStringList &actions,
                                     const QVariantMap &hints, int expireTimeout)
{
    switch (_answer) {
    case Answer::WithError:
        sendErrorReply(QDBusError::Failed, QStringLiteral("the fake server refuses this notification"));
        return 0;
    case Answer::Never:
        // The caller is left waiting until its own timeout.
        setDelayedReply(true);
        return 0;
    case Answer::WithId:
        break;
    }
    const uint id = replacesId != 0 ? replacesId : ++_lastId;
    _notifications.append(
        {id, message().service(), appName, replacesId, appIcon, summary, body, actions, hints, expireTimeout});
    return id;
}

QStringList FakeNotificationService::GetCapabilities()
{
    return {QStringLiteral("actions"), QStringLiteral("body")};
}

QString FakeNotificationService::GetServerInformation(QString &vendor, QString &version, QString &protocolVersion)
{
    vendor = QStringLiteral("KorvaneVarden tests");
    version = QStringLiteral("1.0");
    protocolVersion = QStringLiteral("1.2");
    return QStringLiteral("FakeNotificationService");
}

void FakeNotificationService::CloseNotification(uint id)
{
    emit NotificationClosed(id, 3);
}
