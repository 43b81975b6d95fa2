#include "EventWait.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

bool EventWait::until(const std::function<bool()> &done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    // Conditions set by other threads or processes post no event of their own.
    QTimer wake;
    wake.start(50);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

void EventWait::forMs(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}
