#include "RecordingListener.h"

#include <QCoreApplication>
#include <QStringList>
#include <QThread>

void RecordingListener::pathWatcherEventOccurred(SCEvents *pathWatcher, SCEvent *eventOccurred)
{
    if (QThread::currentThread() != QCoreApplication::instance()->thread())
        calledOffMainThread = true;
    senders.append(pathWatcher);
    events.append(*eventOccurred);
}

QList<SCEvent> RecordingListener::eventsFor(const QString &path) const
{
    QList<SCEvent> found;
    for (const SCEvent &event : events)
        if (event.eventPath() == path)
            found.append(event);
    return found;
}

bool RecordingListener::saw(const QString &path, qint32 flags) const
{
    for (const SCEvent &event : events)
        if (event.eventPath() == path && (event.eventFlags() & flags) == flags)
            return true;
    return false;
}

bool RecordingListener::sawAnythingUnder(const QString &folder) const
{
    for (const SCEvent &event : events)
        if (event.eventPath() == folder || event.eventPath().startsWith(folder + QLatin1Char('/')))
            return true;
    return false;
}

QString RecordingListener::dump() const
{
    QStringList lines;
    for (const SCEvent &event : events)
        lines.append(event.description() + QStringLiteral(" 0x") + QString::number(event.eventFlags(), 16));
    return lines.join(QLatin1Char('\n'));
}
