#include "SessionInstance.h"

#include "platform/SystemLog.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace {

const QString applicationInterface = QStringLiteral("org.freedesktop.Application");
// Long enough for a running agent busy with an alert's nested loop or its startup.
constexpr int activateTimeoutMs = 10000;

} // namespace

SessionInstance::SessionInstance(const QString &identifier, QObject *parent)
    : QObject(parent)
    , _identifier(identifier)
    , _objectPath(QLatin1Char('/') + QString(identifier).replace(QLatin1Char('.'), QLatin1Char('/')))
{}

bool SessionInstance::isBusConnected() const
{
    return QDBusConnection::sessionBus().isConnected();
}

bool SessionInstance::isRunningElsewhere() const
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() && bus.interface()->isServiceRegistered(_identifier).value();
}

bool SessionInstance::activateRunningInstance(QString *error) const
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(_identifier, _objectPath, applicationInterface, QStringLiteral("Activate"));
    call << QVariantMap();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, activateTimeoutMs);
    if (reply.type() == QDBusMessage::ReplyMessage)
        return true;
    if (error)
        *error = reply.errorMessage();
    return false;
}

bool SessionInstance::listen()
{
    // By interface, so that other objects of the program may share the path.
    return QDBusConnection::sessionBus().registerObject(_objectPath, this, QDBusConnection::ExportScriptableSlots);
}

bool SessionInstance::claimName()
{
    return QDBusConnection::sessionBus().registerService(_identifier);
}

void SessionInstance::Activate(const QVariantMap &)
{
    emit activated();
}
