#include "SCEvent.h"

SCEvent::SCEvent(quint64 eventId, const QDateTime &eventDate, const QString &eventPath, qint32 eventFlags)
    : _eventId(eventId)
    , _eventDate(eventDate)
    , _eventPath(eventPath)
    , _eventFlags(eventFlags)
{}

SCEvent SCEvent::eventWithEventId(quint64 eventId, const QDateTime &eventDate, const QString &eventPath,
                                  qint32 eventFlags)
{
    return SCEvent(eventId, eventDate, eventPath, eventFlags);
}

QString SCEvent::description() const
{
    return QStringLiteral("<%1 { eventId = %2, eventPath = %3, eventFlags = %4 } >")
        .arg(QStringLiteral("SCEvent"), QString::number(_eventId), _eventPath, QString::number(_eventFlags));
}
