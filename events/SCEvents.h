#pragma once

#include "events/SCEvent.h"

#include <QMutex>
#include <QStringList>

#include <atomic>
#include <functional>
#include <optional>

struct FileSystemEvent;
class FileSystemWatcher;
class SCEventListenerProtocol;

// Watches folder trees, drops the events under excluded paths and hands every
// other event, one per path and batch, to its delegate on the thread that
// started watching.
class SCEvents
{
public:
    // The identifier to resume from that means: only what happens after the start.
    static constexpr quint64 sinceNow = 0xFFFFFFFFFFFFFFFFULL;

    SCEvents();
    ~SCEvents();
    SCEvents(const SCEvents &) = delete;
    SCEvents &operator=(const SCEvents &) = delete;

    // Not owned.
    SCEventListenerProtocol *delegate() const { return _delegate; }
    void setDelegate(SCEventListenerProtocol *delegate) { _delegate = delegate; }
    bool isWatchingPaths() const { return _isWatchingPaths; }
    bool ignoreEventsFromSubDirs() const { return _ignoreEventsFromSubDirs; }
    void setIgnoreEventsFromSubDirs(bool ignore) { _ignoreEventsFromSubDirs = ignore; }
    double notificationLatency() const { return _notificationLatency; }
    void setNotificationLatency(double seconds) { _notificationLatency = seconds; }
    // Kept for the caller's bookkeeping: inotify has no history, so every start
    // reports what happens from then on, whatever this says.
    quint64 resumeFromEventId() const { return _resumeFromEventId; }
    void setResumeFromEventId(quint64 eventId) { _resumeFromEventId = eventId; }
    std::optional<SCEvent> lastEvent() const { return _lastEvent; }
    void setLastEvent(const std::optional<SCEvent> &event) { _lastEvent = event; }
    QStringList watchedPaths() const { return _watchedPaths; }
    void setWatchedPaths(const QStringList &paths) { _watchedPaths = paths; }
    QStringList excludedPaths() const { return _excludedPaths; }
    void setExcludedPaths(const QStringList &paths) { _excludedPaths = paths; }
    // Folders the scans leave out whole, asked on the stream's own thread: they
    // take no watch, so their events never come.
    void setExcludedFolderTest(const std::function<bool(const QString &folder)> &test) { _excludedFolderTest = test; }

    // Watches on the calling thread's event loop. False for an empty list or while
    // already watching. Folders that cannot be watched (missing, unreadable) are
    // logged and left out; the stream still starts, as it would have on the original
    // platform, so the others are watched and the answer is true even when none of
    // them could be. False also when the system gives no inotify instance.
    bool startWatchingPaths(const QStringList &paths);
    bool stopWatchingPaths();
    // Waits until the trees are set up and delivers every pending event before
    // returning. The delegate must not start, stop or flush from inside it.
    bool flushEventStreamSync();
    bool flushEventStreamAsync();
    // Null while not watching.
    QString streamDescription() const;
    QString description() const;

    // Dropped: equal to an excluded path, or, when ignoring subfolders, beginning
    // with one (text, not whole path components).
    static bool isExcludedPath(const QString &path, const QStringList &excludedPaths, bool ignoreEventsFromSubDirs);
    // One final "/" goes, except from "/" itself.
    static QString pathWithoutTrailingSlash(const QString &path);

private:
    void eventsOccurred(const QList<FileSystemEvent> &events);

    SCEventListenerProtocol *_delegate = nullptr;
    std::atomic_bool _isWatchingPaths = false;
    bool _ignoreEventsFromSubDirs = true;
    FileSystemWatcher *_eventStream = nullptr;
    double _notificationLatency = 3.0;
    quint64 _resumeFromEventId = sinceNow;
    std::optional<SCEvent> _lastEvent;
    QStringList _watchedPaths;
    QStringList _excludedPaths;
    std::function<bool(const QString &folder)> _excludedFolderTest;
    // Serialises start, stop, the flushes and the stream description; never taken by
    // the delivery, so a synchronous flush can call the delegate while holding it.
    mutable QMutex _eventsLock;
    bool _delivering = false;
};
