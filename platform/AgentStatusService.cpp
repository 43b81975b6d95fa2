#include "AgentStatusService.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

const QString AgentStatusService::serviceName = QStringLiteral("org.korvane.KorvaneVarden");
const QString AgentStatusService::objectPath = QStringLiteral("/org/korvane/KorvaneVarden/Status");
const QString AgentStatusService::interfaceName = QStringLiteral("org.korvane.KorvaneVarden");

AgentStatusService::AgentStatusService(Provider provider, QObject *parent)
    : QObject(parent)
    , _provider(std::move(provider))
{}

bool AgentStatusService::publish()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() && bus.registerObject(objectPath, this, QDBusConnection::ExportScriptableSlots);
}

QString AgentStatusService::Status(QStringList &reasons)
{
    const Answer status = _provider();
    reasons = status.reasons;
    return status.level;
}

std::optional<AgentStatusService::Answer> AgentStatusService::ask(int timeoutMs, const QString &service)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return std::nullopt;
    const QDBusMessage call =
        QDBusMessage::createMethodCall(service, objectPath, interfaceName, QStringLiteral("Status"));
    const QDBusMessage reply = bus.call(call, QDBus::Block, timeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2)
        return std::nullopt;
    return Answer{reply.arguments().at(0).toString(), reply.arguments().at(1).toStringList()};
}

void AgentStatusService::askLater(QObject *context, std::function<void(std::optional<Answer>)> done, int timeoutMs)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QMetaObject::invokeMethod(context, [done] { done(std::nullopt); }, Qt::QueuedConnection);
        return;
    }
    const QDBusMessage call =
        QDBusMessage::createMethodCall(serviceName, objectPath, interfaceName, QStringLiteral("Status"));
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, timeoutMs), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [done](QDBusPendingCallWatcher *call) {
        const QDBusPendingReply<QString, QStringList> reply = *call;
        call->deleteLater();
        if (reply.isError())
            done(std::nullopt);
        else
            done(Answer{reply.argumentAt<0>(), reply.argumentAt<1>()});
    });
}
