#include "DBusDistributedNotificationCenter.h"

#include "platform/SystemLog.h"

#include <QDBusMessage>

#include <algorithm>

const QString DBusDistributedNotificationCenter::interfaceName =
    QStringLiteral("org.korvane.DistributedNotifications1");
const QString DBusDistributedNotificationCenter::objectPath = QStringLiteral("/org/korvane/DistributedNotifications1");

DBusDistributedNotificationCenter::DBusDistributedNotificationCenter(const QDBusConnection &bus, QObject *parent)
    : QObject(parent)
    , _bus(bus)
    , _connected(bus.isConnected())
{
    if (!_connected)
        SystemLog::log(
            QStringLiteral("no session bus: distributed notifications are off (%1)").arg(_bus.lastError().message()));
}

DBusDistributedNotificationCenter::~DBusDistributedNotificationCenter()
{
    QSet<QString> names;
    for (const Observation &observation : _observations)
        names.insert(observation.name);
    _observations.clear();
    for (const QString &name : std::as_const(names))
        stopListening(name);
}

bool DBusDistributedNotificationCenter::isConnected() const
{
    return _connected;
}

void DBusDistributedNotificationCenter::addObserver(QObject *observer, const QString &name, Handler handler)
{
    if (!_connected || !observer || !handler)
        return;
    if (!isObserved(name))
        listen(name);
    _observations.push_back({_nextId++, observer, name, std::move(handler)});
    if (!_watchedObservers.contains(observer)) {
        _watchedObservers.insert(observer);
        connect(observer, &QObject::destroyed, this, [this, observer] { removeObserver(observer); });
    }
}

void DBusDistributedNotificationCenter::removeObserver(QObject *observer)
{
    if (!_watchedObservers.remove(observer))
        return;
    // During destruction the sender is already a plain QObject; disconnecting by pointer still works.
    disconnect(observer, &QObject::destroyed, this, nullptr);
    QSet<QString> names;
    std::erase_if(_observations, [&](const Observation &observation) {
        if (observation.observer != observer)
            return false;
        names.insert(observation.name);
        return true;
    });
    for (const QString &name : std::as_const(names))
        if (!isObserved(name))
            stopListening(name);
}

void DBusDistributedNotificationCenter::postNotificationName(const QString &name, const QString &object)
{
    if (!_connected)
        return;
    QDBusMessage signal = QDBusMessage::createSignal(objectPath, interfaceName, name);
    signal << object;
    if (!_bus.send(signal)) {
        SystemLog::log(
            QStringLiteral("cannot post distributed notification %1 (%2)").arg(name, _bus.lastError().message()));
        return;
    }
    // A signal still queued when the process exits is lost.
    flush();
}

void DBusDistributedNotificationCenter::deliver(const QDBusMessage &message)
{
    const QString name = message.member();
    const QList<QVariant> arguments = message.arguments();
    const QString object = arguments.isEmpty() ? QString() : arguments.first().toString();

    // Handlers may add or remove observers, so work from the ids present now
    // and skip those removed meanwhile.
    std::vector<quint64> ids;
    for (const Observation &observation : _observations)
        if (observation.name == name)
            ids.push_back(observation.id);
    for (quint64 id : ids) {
        const auto found = std::find_if(_observations.begin(), _observations.end(),
                                        [id](const Observation &observation) { return observation.id == id; });
        if (found == _observations.end())
            continue;
        const Handler handler = found->handler;
        handler(object);
    }
}

bool DBusDistributedNotificationCenter::isObserved(const QString &name) const
{
    return std::any_of(_observations.begin(), _observations.end(),
                       [&](const Observation &observation) { return observation.name == name; });
}

void DBusDistributedNotificationCenter::listen(const QString &name)
{
    // An empty service hears every sender.
    if (!_bus.connect(QString(), objectPath, interfaceName, name, this, SLOT(deliver(QDBusMessage)))) {
        SystemLog::log(
            QStringLiteral("cannot observe distributed notification %1 (%2)").arg(name, _bus.lastError().message()));
        return;
    }
    // The match rule goes out without waiting; once flushed, whatever is sent
    // after addObserver returns is heard.
    flush();
}

void DBusDistributedNotificationCenter::stopListening(const QString &name)
{
    _bus.disconnect(QString(), objectPath, interfaceName, name, this, SLOT(deliver(QDBusMessage)));
}

void DBusDistributedNotificationCenter::flush()
{
    // The reply to a call comes back only after everything sent before it
    // on this connection has reached the bus.
    const QDBusMessage ping =
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                                       QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
    _bus.call(ping, QDBus::Block, 1000);
}
