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

// Leaves the bus the way a server that quits does.
FakeNotificationService::~FakeNotificationService()
{
    if (!_registered)
        return;
    _bus.unregisterService(serviceName);
    _bus.unregisterObject(objectPath);
}

bool FakeNotificationService::isRegistered() const
{
    return _registered;
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

uint FakeNotificationService::Notify(const QString &, uint replacesId, const QString &, const QString &summary,
                                     const QString &body, const QStringList &actions, const QVariantMap &, int)
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
    _notifications.append({id, summary, body, actions});
    return id;
}
