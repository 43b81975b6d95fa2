#pragma once

#include "QXExclusionPredicate.h"

#include <QList>
#include <QPointer>
#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>

class QXFileCounterDelegate;

// Counts on a pool thread how many files a scan of some paths visits, with
// the scan's exclusions, root-volume skips and quarantine skip, and hands
// the total to the delegate on the main thread.
class QXFileCounter
{
public:
    // The total is delivered through mainThreadContext, an object that
    // lives on the main thread; without it nothing is delivered.
    QXFileCounter(QXFileCounterDelegate *delegate, QObject *mainThreadContext);

    void setThePathsToScan(const QStringList &paths) { _thePathsToScan = paths; }
    QStringList thePathsToScan() const { return _thePathsToScan; }

    // Runs the count on the calling thread, which must not be the main one,
    // and waits until the main thread has taken the total.
    void main();
    // What the pool runs: nothing at all once cancelled before it began.
    void start();

    // Ends the walk of the current path after its current entry; safe from
    // any thread.
    void cancel() { _cancelled = true; }
    bool isCancelled() const { return _cancelled; }

    // The number of files below one path, or 1 for a file or a missing path.
    int countFilesForPath(const QString &path, const QList<QXExclusionPredicate> &excludeList, bool quarantineOn,
                          const QString &quarantineDir);

private:
    QXFileCounterDelegate *_delegate;
    QPointer<QObject> _mainThreadContext;
    QStringList _thePathsToScan;
    std::atomic_bool _cancelled{false};
};
