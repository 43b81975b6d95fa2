#pragma once

#include <QObject>

// Tells when the machine is about to sleep and when it has woken up.
class SleepWakeNotifier : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
    ~SleepWakeNotifier() override = default;

    static SleepWakeNotifier *sharedNotifier();
    // Tests give their own; nullptr returns to the system-bus one.
    static void setSharedNotifier(SleepWakeNotifier *notifier);

signals:
    void willSleep();
    void didWake();
};
