#include "LogindSleepWakeNotifier.h"

#include "platform/SystemLog.h"

#include <QDBusConnectionInterface>
#include <QDBusReply>

namespace {
const QString logindService = QStringLiteral("org.freedesktop.login1");
}

LogindSleepWakeNotifier::LogindSleepWakeNotifier(const QDBusConnection &bus, QObject *parent)
    : SleepWakeNotifier(parent)
    , _bus(bus)
{
    if (!_bus.isConnected()) {
        SystemLog::log(
            QStringLiteral("no system bus: sleep and wake are not watched (%1)").arg(_bus.lastError().message()));
        return;
    }
    // Naming the service makes Qt follow its owner, so only logind is heard,
    // including a logind that starts later.
    _watching = _bus.connect(logindService, QStringLiteral("/org/freedesktop/login1"),
                             QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"), this,
                             SLOT(prepareForSleep(bool)));
    if (!_watching) {
        SystemLog::log(QStringLiteral("cannot watch sleep and wake (%1)").arg(_bus.lastError().message()));
        return;
    }
    const QDBusReply<bool> running = _bus.interface()->isServiceRegistered(logindService);
    if (!running.isValid() || !running.value())
        SystemLog::log(QStringLiteral("logind is not running: sleep and wake are not watched until it appears"));
}

bool LogindSleepWakeNotifier::isWatching() const
{
    return _watching;
}

void LogindSleepWakeNotifier::prepareForSleep(bool sleeping)
{
    if (sleeping)
        emit willSleep();
    else
        emit didWake();
}
