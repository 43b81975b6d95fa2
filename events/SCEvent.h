#pragma once

#include <QDateTime>
#include <QString>

// One folder event: the stream's identifier, the time the stream handed it out,
// the path concerned and the stream's flag word, unchanged.
class SCEvent
{
public:
    SCEvent() = default;
    SCEvent(quint64 eventId, const QDateTime &eventDate, const QString &eventPath, qint32 eventFlags);

    static SCEvent eventWithEventId(quint64 eventId, const QDateTime &eventDate, const QString &eventPath,
                                    qint32 eventFlags);

    quint64 eventId() const { return _eventId; }
    void setEventId(quint64 eventId) { _eventId = eventId; }
    QDateTime eventDate() const { return _eventDate; }
    void setEventDate(const QDateTime &eventDate) { _eventDate = eventDate; }
    QString eventPath() const { return _eventPath; }
    void setEventPath(const QString &eventPath) { _eventPath = eventPath; }
    qint32 eventFlags() const { return _eventFlags; }
    void setEventFlags(qint32 eventFlags) { _eventFlags = eventFlags; }

    QString description() const;

private:
    quint64 _eventId = 0;
    QDateTime _eventDate;
    QString _eventPath;
    qint32 _eventFlags = 0;
};
