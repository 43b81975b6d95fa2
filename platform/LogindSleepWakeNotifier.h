#pragma once

#include "platform/SleepWakeNotifier.h"

#include <QDBusConnection>

// Sleep and wake as logind announces them with PrepareForSleep on the system
// bus. Takes no inhibitor lock: the agent needs no delay before sleeping.
class LogindSleepWakeNotifier : public SleepWakeNotifier
{
    Q_OBJECT
public:
    explicit LogindSleepWakeNotifier(const QDBusConnection &bus = QDBusConnection::systemBus(),
                                     QObject *parent = nullptr);

    // False without a system bus; a logind that is not running yet is still heard once it appears.
    bool isWatching() const;

private slots:
    void prepareForSleep(bool sleeping);

private:
    QDBusConnection _bus;
    bool _watching = false;
};
