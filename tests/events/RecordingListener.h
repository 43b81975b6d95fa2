#pragma once

#include "events/SCEvent.h"
#include "events/SCEventListenerProtocol.h"
#include "events/SCEvents.h"
#include "tests/support/QtPrinters.h"

#include <QList>
#include <QString>

// The agent's flag bits, as the tests expect them.
namespace Flag {
constexpr qint32 mustScanSubDirs = 0x1;
constexpr qint32 rootChanged = 0x20;
constexpr qint32 created = 0x100;
constexpr qint32 removed = 0x200;
constexpr qint32 inodeMetaMod = 0x400;
constexpr qint32 renamed = 0x800;
constexpr qint32 modified = 0x1000;
constexpr qint32 isFile = 0x10000;
constexpr qint32 isDir = 0x20000;
} // namespace Flag

// A listener that keeps every event it is given.
class RecordingListener : public SCEventListenerProtocol
{
public:
    void pathWatcherEventOccurred(SCEvents *pathWatcher, SCEvent *eventOccurred) override;

    QList<SCEvent> events;
    QList<SCEvents *> senders;
    // Set when a call came on another thread than the application's.
    bool calledOffMainThread = false;

    QList<SCEvent> eventsFor(const QString &path) const;
    // Some event for path carries every bit of flags.
    bool saw(const QString &path, qint32 flags = 0) const;
    bool sawAnythingUnder(const QString &folder) const;
    QString dump() const;
};
