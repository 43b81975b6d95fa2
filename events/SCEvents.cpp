#include "SCEvents.h"

#include "events/SCEventListenerProtocol.h"
#include "platform/FileSystemWatcher.h"

#include <QMutexLocker>
#include <QThread>

#include <algorithm>
#include <utility>

namespace {

QString arrayDescription(const QStringList &paths)
{
    QStringList quoted;
    for (const QString &path : paths)
        quoted.append(QLatin1Char('"') + path + QLatin1Char('"'));
    return QLatin1Char('(') + quoted.join(QStringLiteral(", ")) + QLatin1Char(')');
}

} // namespace

SCEvents::SCEvents() = default;

SCEvents::~SCEvents()
{
    _delegate = nullptr;
    stopWatchingPaths();
}

bool SCEvents::startWatchingPaths(const QStringList &paths)
{
    QMutexLocker locker(&_eventsLock);
    if (paths.isEmpty() || _isWatchingPaths)
        return false;
    _watchedPaths = paths;
    FileSystemWatcher *stream = FileSystemWatcher::create();
    QObject::connect(stream, &FileSystemWatcher::eventsOccurred, stream,
                     [this](const QList<FileSystemEvent> &events) { eventsOccurred(events); });
    QObject::connect(stream, &FileSystemWatcher::coverageChanged, stream,
                     [this](const QString &root, const QString &problem) {
                         if (_delegate)
                             _delegate->pathWatcherCoverageChanged(this, root, problem);
                     });
    // Below an excluded folder every event would be dropped, so it needs no watches.
    const QStringList prefixes = _ignoreEventsFromSubDirs ? _excludedPaths : QStringList();
    const auto unwatched = [prefixes, excluded = _excludedFolderTest](const QString &folder) {
        return std::any_of(prefixes.begin(), prefixes.end(),
                           [&](const QString &prefix) { return folder.startsWith(prefix); })
               || (excluded && excluded(folder));
    };
    if (!stream->start(paths, _notificationLatency, unwatched)) {
        delete stream;
        return false;
    }
    _eventStream = stream;
    _isWatchingPaths = true;
    return true;
}

bool SCEvents::stopWatchingPaths()
{
    QMutexLocker locker(&_eventsLock);
    if (!_isWatchingPaths)
        return false;
    FileSystemWatcher *stream = std::exchange(_eventStream, nullptr);
    stream->disconnect();
    stream->stop();
    // Stopped by the delegate while the stream is calling it: the stream is still on the stack.
    if (_delivering || stream->thread() != QThread::currentThread())
        stream->deleteLater();
    else
        delete stream;
    _isWatchingPaths = false;
    return true;
}

bool SCEvents::flushEventStreamSync()
{
    QMutexLocker locker(&_eventsLock);
    if (!_isWatchingPaths)
        return false;
    _eventStream->flushSync();
    return true;
}

bool SCEvents::flushEventStreamAsync()
{
    QMutexLocker locker(&_eventsLock);
    if (!_isWatchingPaths)
        return false;
    _eventStream->flushAsync();
    return true;
}

QString SCEvents::streamDescription() const
{
    QMutexLocker locker(&_eventsLock);
    if (!_isWatchingPaths)
        return {};
    return _eventStream->description();
}

QString SCEvents::description() const
{
    return QStringLiteral("<%1 { watchedPaths = %2, excludedPaths = %3 } >")
        .arg(QStringLiteral("SCEvents"), arrayDescription(_watchedPaths), arrayDescription(_excludedPaths));
}

bool SCEvents::isExcludedPath(const QString &path, const QStringList &excludedPaths, bool ignoreEventsFromSubDirs)
{
    for (const QString &excluded : excludedPaths) {
        if (path == excluded || (ignoreEventsFromSubDirs && path.startsWith(excluded)))
            return true;
    }
    return false;
}

QString SCEvents::pathWithoutTrailingSlash(const QString &path)
{
    if (path.size() >= 2 && path.endsWith(QLatin1Char('/')))
        return path.chopped(1);
    return path;
}

void SCEvents::eventsOccurred(const QList<FileSystemEvent> &events)
{
    // Runs without the lock: a synchronous flush holds it while this is called.
    const bool wasDelivering = std::exchange(_delivering, true);
    for (qsizetype i = 0; i < events.size(); ++i) {
        const FileSystemEvent &change = events.at(i);
        if (isExcludedPath(change.path, _excludedPaths, _ignoreEventsFromSubDirs))
            continue;
        SCEvent event(change.eventId, QDateTime::currentDateTime(), pathWithoutTrailingSlash(change.path),
                      qint32(change.flags));
        if (_delegate)
            _delegate->pathWatcherEventOccurred(this, &event);
        if (i == events.size() - 1)
            _lastEvent = event;
    }
    _delivering = wasDelivering;
}
