#include "AgentStatusService.h"

#include <QDBusConnection>
#include <QDBusMessage>

const QString AgentStatusService::serviceName = QStringLiteral("org.korvane.KorvaneVarden");
const QString AgentStatusService::objectPath = QStringLiteral("/org/korvane/KorvaneVarden");
const QString AgentStatusService::interfaceName = QStringLiteral("org.korvane.KorvaneVarden");

AgentStatusService::AgentStatusService(Provider provider, QObject *parent)
    : QObject(parent)
    , _provider(std::move(provider))
{}

bool AgentStatusService::publish()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    // The same path also answers the session-instance calls.
    return bus.isConnected() && bus.registerObject(objectPath, interfaceName, this, QDBusConnection::ExportScriptableSlots);
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
