#include "InotifyWatcher.h"

#include "platform/Localization.h"
#include "platform/SystemLog.h"
#include "platform/UserNotificationCenter.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QMutexLocker>
#include <QSet>
#include <QSocketNotifier>
#include <QTimer>
#include <QVarLengthArray>

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace {

// On the nearest existing parent of a missing root: whatever could make the root appear,
// and the parent's own end.
constexpr uint32_t lookoutChanges = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;

constexpr uint32_t watchedChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE
                                    | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK | IN_ONLYDIR;

// A walk step longer than this hands the thread back to its event loop, so the
// queue is read and a stop is heard while a large tree is being set up.
constexpr qint64 walkSliceMs = 10;

// File systems that keep times to the second or two (FAT keeps two) stamp a change
// made just after the start with a time before it.
constexpr qint64 stampMarginNs = 2'000'000'000;

qint64 nanoseconds(const timespec &time)
{
    return qint64(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

// The clock file systems stamp changes with, read the way they read it.
qint64 stampClockNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return nanoseconds(now);
}

// Steady across changes of the wall clock, and counting time asleep as the wall clock does.
qint64 elapsedClockNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return nanoseconds(now);
}

QByteArray joined(const QByteArray &folder, const QByteArray &name)
{
    if (folder.endsWith('/'))
        return folder + name;
    return folder + '/' + name;
}

bool isFolder(const QByteArray &path)
{
    struct stat status;
    return ::stat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

quint32 flagsForMask(uint32_t mask)
{
    quint32 flags = 0;
    if (mask & IN_CREATE)
        flags |= FileSystemWatcher::ItemCreated;
    if (mask & IN_DELETE)
        flags |= FileSystemWatcher::ItemRemoved;
    if (mask & (IN_MOVED_FROM | IN_MOVED_TO))
        flags |= FileSystemWatcher::ItemRenamed;
    if (mask & (IN_MODIFY | IN_CLOSE_WRITE))
        flags |= FileSystemWatcher::ItemModified;
    if (mask & IN_ATTRIB)
        flags |= FileSystemWatcher::ItemInodeMetaMod;
    return flags;
}

qint64 watchLimit()
{
    QFile file(QStringLiteral("/proc/sys/fs/inotify/max_user_watches"));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    bool ok = false;
    const qint64 value = file.readAll().trimmed().toLongLong(&ok);
    return ok ? value : -1;
}

} // namespace

class InotifyWatcher::Worker : public QObject
{
public:
    Worker(InotifyWatcher *owner, int fd, const QStringList &roots, int latencyMs, const FolderTest &isUnwatched,
           qint64 watchBudget, qint64 changedSinceNs);
    ~Worker() override;

    void begin();
    // With wait, finishes the walk and reads the queue dry before closing the batch.
    void flush(bool wait);
    void holdReading(bool hold);
    QString description() const;

private:
    enum class Walk { Initial, New, Rescan };

    // Kept per watched folder: its parent's watch and its own name, so that 100,000
    // folders cost little and a moved folder is one update. A root has no parent
    // and keeps its whole path as name.
    struct Folder
    {
        int parent;
        QByteArray name;
    };

    struct PendingFolder
    {
        int wd;
        int parent;
        QByteArray name;
        QByteArray path;
        Walk walk;
    };

    int addWatch(const QByteArray &path, uint32_t mask);
    void readQueue();
    void readQueueAndWalk();
    void handle(const inotify_event &event);
    void handleSelfEvent(int wd, uint32_t mask);
    void adoptMovedFolder(int parent, const QByteArray &name, const QByteArray &path);
    void awaitRoot(const QByteArray &root);
    void lookoutChanged(int wd, uint32_t mask);
    void overflowed();
    void handOverWhole(const QByteArray &path, int error);
    void walk(bool toTheEnd);
    void visit(PendingFolder folder);
    void reportWatchFailure(int error, const PendingFolder &folder);
    void forgetTree(int wd);
    QByteArray pathOf(int wd) const;
    QByteArray rootOf(int wd) const;
    bool isUnwatched(const QByteArray &path) const;
    bool isRecent(const timespec &time) const { return nanoseconds(time) >= _changedSinceNs; }
    bool isLost(const timespec &time) const { return nanoseconds(time) >= _lostSinceNs; }
    void note(const QByteArray &path, quint32 flags);
    void closeBatch();

    InotifyWatcher *const _owner;
    const int _fd;
    const int _latencyMs;
    const qint64 _watchBudget;
    // Changes stamped from then on may have come before their folder's watch.
    const qint64 _changedSinceNs;
    QList<QByteArray> _roots;
    FolderTest _isUnwatched;
    QSocketNotifier *_notifier = nullptr;
    QTimer *_latencyTimer = nullptr;
    QHash<int, Folder> _folders;
    std::vector<PendingFolder> _pending;
    QSet<int> _rescanned;
    // Folders re-homed by a rename inside the trees, until their IN_MOVE_SELF.
    QSet<int> _movedWithinTrees;
    // Roots that are not there, by the watch on their nearest existing parent.
    QHash<int, QList<QByteArray>> _lookouts;
    QList<FileSystemEvent> _batch;
    QHash<QString, qsizetype> _batchIndex;
    // When the queue was last read empty: whatever an overflow loses came after it.
    qint64 _drainedAtNs;
    qint64 _drainedAtElapsedNs;
    // Changes stamped from then on may be among those an overflow lost; negative
    // while no walk after an overflow is under way.
    qint64 _lostSinceNs = -1;
    qint64 _lostFilesFound = 0;
    QElapsedTimer _lostWalkClock;
    bool _settingUp = true;
    bool _walkPosted = false;
    bool _limitReported = false;
};

InotifyWatcher::Worker::Worker(InotifyWatcher *owner, int fd, const QStringList &roots, int latencyMs,
                               const FolderTest &isUnwatched, qint64 watchBudget, qint64 changedSinceNs)
    : _owner(owner)
    , _fd(fd)
    , _latencyMs(latencyMs)
    , _watchBudget(watchBudget)
    , _changedSinceNs(changedSinceNs)
    , _isUnwatched(isUnwatched)
    , _drainedAtNs(changedSinceNs + stampMarginNs)
    , _drainedAtElapsedNs(elapsedClockNs())
{
    for (const QString &root : roots)
        _roots.append(QFile::encodeName(root));
}

InotifyWatcher::Worker::~Worker()
{
    // Closing the descriptor drops every watch at once.
    ::close(_fd);
}

void InotifyWatcher::Worker::begin()
{
    _latencyTimer = new QTimer(this);
    _latencyTimer->setSingleShot(true);
    connect(_latencyTimer, &QTimer::timeout, this, &Worker::closeBatch);
    _notifier = new QSocketNotifier(_fd, QSocketNotifier::Read, this);
    connect(_notifier, &QSocketNotifier::activated, this, &Worker::readQueueAndWalk);
    for (auto root = _roots.crbegin(); root != _roots.crend(); ++root) {
        if (!isUnwatched(*root))
            _pending.push_back({-1, -1, *root, *root, Walk::Initial});
    }
    walk(false);
}

void InotifyWatcher::Worker::flush(bool wait)
{
    if (!wait) {
        readQueueAndWalk();
    } else {
        readQueue();
        while (!_pending.empty()) {
            walk(true);
            readQueue();
        }
    }
    closeBatch();
}

void InotifyWatcher::Worker::holdReading(bool hold)
{
    _notifier->setEnabled(!hold);
    if (!hold)
        readQueueAndWalk();
}

QString InotifyWatcher::Worker::description() const
{
    QStringList roots;
    for (const QByteArray &root : _roots)
        roots.append(QFile::decodeName(root));
    return QStringLiteral("inotify descriptor %1: %2 folders watched under (%3), latency %4 s, %5, %6 paths pending")
        .arg(QString::number(_fd), QString::number(_folders.size()), roots.join(QStringLiteral(", ")),
             QString::number(_latencyMs / 1000.0), _settingUp ? QStringLiteral("setting up") : QStringLiteral("set up"),
             QString::number(_batch.size()));
}

int InotifyWatcher::Worker::addWatch(const QByteArray &path, uint32_t mask)
{
    if (_watchBudget >= 0 && _folders.size() >= _watchBudget) {
        errno = ENOSPC;
        return -1;
    }
    return inotify_add_watch(_fd, path.constData(), mask);
}

void InotifyWatcher::Worker::readQueue()
{
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        const qint64 before = stampClockNs();
        const qint64 elapsedBefore = elapsedClockNs();
        const ssize_t length = ::read(_fd, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0 && errno == EAGAIN) {
            // Stamped before the read: an event queued while it ran is not lost yet.
            _drainedAtNs = before;
            _drainedAtElapsedNs = elapsedBefore;
        }
        if (length <= 0)
            return;
        for (ssize_t offset = 0; offset < length;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + offset);
            handle(*event);
            offset += ssize_t(sizeof(inotify_event) + event->len);
        }
    }
}

void InotifyWatcher::Worker::readQueueAndWalk()
{
    readQueue();
    // New folders get their watches before anything else is walked.
    if (!_pending.empty())
        walk(false);
}

void InotifyWatcher::Worker::handle(const inotify_event &event)
{
    if (event.mask & IN_Q_OVERFLOW) {
        overflowed();
        return;
    }
    if (_lookouts.contains(event.wd))
        lookoutChanged(event.wd, event.mask);
    if (!_folders.contains(event.wd))
        return;
    if (event.mask & IN_IGNORED) {
        _folders.remove(event.wd);
        _movedWithinTrees.remove(event.wd);
        return;
    }
    if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
        handleSelfEvent(event.wd, event.mask);
        return;
    }
    const QByteArray folderPath = pathOf(event.wd);
    if (folderPath.isEmpty())
        return;
    const quint32 flags = flagsForMask(event.mask);
    if (event.len == 0 || event.name[0] == '\0') {
        // The watched folder itself, for example its permissions.
        note(folderPath, flags | ItemIsDir);
        return;
    }
    const QByteArray name(event.name);
    const QByteArray path = joined(folderPath, name);
    const bool isFolder = event.mask & IN_ISDIR;
    note(path, flags | (isFolder ? ItemIsDir : ItemIsFile));
    if (!isFolder)
        return;
    if ((event.mask & IN_CREATE) && !isUnwatched(path))
        _pending.push_back({-1, event.wd, name, path, Walk::New});
    else if (event.mask & IN_MOVED_TO)
        adoptMovedFolder(event.wd, name, path);
}

void InotifyWatcher::Worker::handleSelfEvent(int wd, uint32_t mask)
{
    if ((mask & IN_MOVE_SELF) && _movedWithinTrees.remove(wd))
        return;
    const auto folder = _folders.constFind(wd);
    if (folder->parent < 0) {
        const QByteArray root = folder->name;
        note(root, RootChanged);
        const QString reason = (mask & IN_MOVE_SELF) ? QStringLiteral("it was moved away")
                               : (mask & IN_UNMOUNT) ? QStringLiteral("its file system was unmounted")
                                                     : QStringLiteral("it was removed");
        NSLog(QStringLiteral("cannot watch %1: %2").arg(QFile::decodeName(root), reason));
        _owner->reportCoverage(QFile::decodeName(root), reason);
    }
    // A folder moved out of the trees: what happens at its new place is none of ours.
    // Removed folders lose their watches one by one through IN_IGNORED.
    const QByteArray root = folder->parent < 0 ? folder->name : QByteArray();
    if (mask & IN_MOVE_SELF)
        forgetTree(wd);
    if (!root.isEmpty())
        awaitRoot(root);
}

void InotifyWatcher::Worker::awaitRoot(const QByteArray &root)
{
    for (QByteArray parent = root; parent != "/";) {
        const qsizetype slash = parent.lastIndexOf('/');
        if (slash < 0)
            return;
        parent = slash == 0 ? QByteArray("/") : parent.left(slash);
        const int wd = inotify_add_watch(_fd, parent.constData(), lookoutChanges);
        if (wd < 0 && (errno == ENOENT || errno == ENOTDIR))
            continue;
        if (wd < 0) {
            NSLog(QStringLiteral("cannot wait for %1 to appear: %2")
                      .arg(QFile::decodeName(root), qt_error_string(errno)));
            return;
        }
        if (!_lookouts[wd].contains(root))
            _lookouts[wd].append(root);
        break;
    }
    // It may have appeared before the parent's watch existed.
    if (isFolder(root))
        QMetaObject::invokeMethod(
            this,
            [this] {
                lookoutChanged(-1, 0);
                if (!_pending.empty())
                    walk(false);
            },
            Qt::QueuedConnection);
}

void InotifyWatcher::Worker::lookoutChanged(int wd, uint32_t mask)
{
    const QList<int> looked = wd < 0 ? _lookouts.keys() : QList<int>{wd};
    QList<QByteArray> awaited;
    for (int each : looked)
        awaited.append(_lookouts.take(each));
    for (const QByteArray &root : std::as_const(awaited)) {
        if (isFolder(root)) {
            NSLog(QStringLiteral("%1 is there: watching it").arg(QFile::decodeName(root)));
            _owner->reportCoverage(QFile::decodeName(root), QString());
            // Listed as new, so that what it holds already is scanned.
            _pending.push_back({-1, -1, root, root, Walk::New});
        } else {
            // Its parent may have gone, or a folder on the way to it appeared.
            awaitRoot(root);
        }
    }
    for (int each : looked) {
        const bool gone = each == wd && (mask & IN_IGNORED);
        if (!gone && !_lookouts.contains(each) && !_folders.contains(each))
            inotify_rm_watch(_fd, each);
    }
}

void InotifyWatcher::Worker::adoptMovedFolder(int parent, const QByteArray &name, const QByteArray &path)
{
    // Moved under an unwatched prefix: its IN_MOVE_SELF finds it not re-homed and lets it go.
    if (isUnwatched(path))
        return;
    // For a folder that is watched already the kernel answers its existing watch.
    const int wd = addWatch(path, watchedChanges | IN_DONT_FOLLOW);
    if (wd < 0) {
        reportWatchFailure(errno, {-1, parent, name, path, Walk::New});
        return;
    }
    const auto known = _folders.find(wd);
    if (known != _folders.end()) {
        known->parent = parent;
        known->name = name;
        _movedWithinTrees.insert(wd);
        return;
    }
    _folders.insert(wd, {parent, name});
    _pending.push_back({wd, parent, name, path, Walk::New});
}

void InotifyWatcher::Worker::overflowed()
{
    // Changes were lost since the queue was last read empty. The trees are walked
    // again: folders made meanwhile get their watches, and every file whose change
    // time (which no one can set back) falls after that moment is reported. The wall
    // clock may have been set back since, which the steady clock shows.
    const qint64 drainedAgoNs = elapsedClockNs() - _drainedAtElapsedNs;
    const qint64 lostSince = qMin(_drainedAtNs, stampClockNs() - drainedAgoNs) - stampMarginNs;
    if (_lostSinceNs < 0)
        _lostWalkClock.start();
    _lostSinceNs = _lostSinceNs < 0 ? lostSince : qMin(_lostSinceNs, lostSince);
    // Folders a walk under way has passed already may have lost changes too.
    _rescanned.clear();
    const QString since = QDateTime::fromMSecsSinceEpoch(_lostSinceNs / 1'000'000).toString(Qt::ISODateWithMs);
    for (const QByteArray &root : std::as_const(_roots)) {
        for (auto folder = _folders.cbegin(); folder != _folders.cend(); ++folder) {
            if (folder->parent < 0 && folder->name == root) {
                NSLog(QStringLiteral("inotify queue overflowed: looking for what changed under %1 since %2")
                          .arg(QFile::decodeName(root), since));
                _pending.insert(_pending.begin(), {-1, -1, root, root, Walk::Rescan});
                break;
            }
        }
    }
    // A missing root may have appeared among the lost events.
    lookoutChanged(-1, 0);
}

void InotifyWatcher::Worker::handOverWhole(const QByteArray &path, int error)
{
    NSLog(QStringLiteral("cannot list %1 after an inotify queue overflow (%2): it is scanned whole")
              .arg(QFile::decodeName(path), qt_error_string(error)));
    note(path, MustScanSubDirs | ItemModified | ItemIsDir);
}

void InotifyWatcher::Worker::walk(bool toTheEnd)
{
    QElapsedTimer clock;
    clock.start();
    QThread *thread = QThread::currentThread();
    while (!_pending.empty() && !thread->isInterruptionRequested()) {
        PendingFolder folder = std::move(_pending.back());
        _pending.pop_back();
        visit(std::move(folder));
        if (!toTheEnd && clock.elapsed() >= walkSliceMs)
            break;
    }
    if (thread->isInterruptionRequested())
        return;
    if (!_pending.empty()) {
        if (!_walkPosted) {
            _walkPosted = true;
            QMetaObject::invokeMethod(
                this,
                [this] {
                    _walkPosted = false;
                    walk(false);
                },
                Qt::QueuedConnection);
        }
        return;
    }
    _pending.shrink_to_fit();
    _rescanned.clear();
    if (_lostSinceNs >= 0) {
        NSLog(QStringLiteral("after the inotify queue overflow: %1 changed files found in %2 ms")
                  .arg(_lostFilesFound)
                  .arg(_lostWalkClock.elapsed()));
        _lostSinceNs = -1;
        _lostFilesFound = 0;
        // They waited for the walk already; the latency would only delay them more.
        closeBatch();
    }
    if (_settingUp) {
        _settingUp = false;
        _owner->reportSetupFinished(_folders.size());
    }
}

void InotifyWatcher::Worker::visit(PendingFolder folder)
{
    const bool isRoot = folder.parent < 0;
    if (folder.wd < 0) {
        // Roots may be symbolic links to folders; nothing below them is followed.
        const int wd = addWatch(folder.path, watchedChanges | (isRoot ? 0 : IN_DONT_FOLLOW));
        if (wd < 0) {
            const int error = errno;
            reportWatchFailure(error, folder);
            if (folder.walk == Walk::Rescan && error != ENOENT && error != ENOTDIR && error != ELOOP)
                handOverWhole(folder.path, error);
            return;
        }
        const QByteArray name = isRoot ? folder.path : folder.name;
        const auto known = _folders.find(wd);
        if (known == _folders.end()) {
            _folders.insert(wd, {folder.parent, name});
            if (folder.walk == Walk::Rescan) {
                // Made or moved in among the lost changes: what it holds is all new.
                note(folder.path, ItemCreated | ItemIsDir);
                folder.walk = Walk::New;
            }
        } else if (folder.walk != Walk::Rescan || _rescanned.contains(wd) || (known->parent < 0 && !isRoot)) {
            return; // reached twice: a bind mount, or a root inside another root
        } else if (known->parent != folder.parent || known->name != name) {
            // Renamed among the lost changes.
            known->parent = folder.parent;
            known->name = name;
            note(folder.path, ItemRenamed | ItemIsDir);
        }
        folder.wd = wd;
    }
    if (folder.walk == Walk::Rescan) {
        if (_rescanned.contains(folder.wd))
            return;
        _rescanned.insert(folder.wd);
    }

    const int fd = ::open(folder.path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (isRoot ? 0 : O_NOFOLLOW));
    if (fd < 0) {
        if (folder.walk == Walk::Rescan && errno != ENOENT && errno != ENOTDIR)
            handOverWhole(folder.path, errno);
        return;
    }
    if (folder.walk == Walk::Initial && !isRoot) {
        // Moved in since the start (a move changes only the moved folder's ctime), so
        // what it holds keeps its old times: all of it is new, as for a folder moved in
        // while watched.
        struct stat status;
        if (::fstat(fd, &status) == 0 && isRecent(status.st_ctim) && !isRecent(status.st_mtim)) {
            note(folder.path, ItemRenamed | ItemIsDir);
            folder.walk = Walk::New;
        }
    }
    DIR *dir = ::fdopendir(fd);
    if (!dir) {
        if (folder.walk == Walk::Rescan)
            handOverWhole(folder.path, errno);
        ::close(fd);
        return;
    }
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(dir);
        if (!entry) {
            if (errno != 0 && folder.walk == Walk::Rescan)
                handOverWhole(folder.path, errno);
            break;
        }
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        const bool timedEntry =
            (folder.walk == Walk::Initial || folder.walk == Walk::Rescan) && entry->d_type != DT_DIR;
        struct stat status;
        const bool stated = (timedEntry || entry->d_type == DT_UNKNOWN)
                            && ::fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
        // Gone since it was listed: its removal is nothing to scan.
        if (!stated && errno == ENOENT && (timedEntry || entry->d_type == DT_UNKNOWN))
            continue;
        const bool isFolder = entry->d_type == DT_DIR || (stated && S_ISDIR(status.st_mode));
        const QByteArray name(entry->d_name);
        const QByteArray path = joined(folder.path, name);
        // A folder that was new when its watch came: what is in it already was created since the start.
        if (folder.walk == Walk::New) {
            note(path, ItemCreated | (isFolder ? ItemIsDir : ItemIsFile));
        } else if (folder.walk == Walk::Initial) {
            // Written or moved in since the start, perhaps before this folder's watch existed.
            if (stated && !isFolder && (isRecent(status.st_mtim) || isRecent(status.st_ctim)))
                note(path, ItemModified | ItemIsFile);
        } else if (timedEntry && !isFolder && (!stated || (S_ISREG(status.st_mode) && isLost(status.st_ctim)))) {
            // Changed among the lost events; one whose times cannot be read is taken as changed.
            ++_lostFilesFound;
            note(path, ItemModified | ItemIsFile);
        }
        if (isFolder && !isUnwatched(path))
            _pending.push_back({-1, folder.wd, name, path, folder.walk});
    }
    ::closedir(dir);
}

void InotifyWatcher::Worker::reportWatchFailure(int error, const PendingFolder &folder)
{
    if (error == ENOSPC) {
        if (_limitReported)
            return;
        _limitReported = true;
        const qint64 limit = watchLimit();
        const qint64 suggested = qMax<qint64>(2 * limit, 524288);
        const QString root = QFile::decodeName(folder.parent < 0 ? folder.path : rootOf(folder.parent));
        NSLog(
            QStringLiteral("inotify watch limit reached (fs.inotify.max_user_watches = %1): some folders under %2 "
                           "are not watched; raise it with: sysctl fs.inotify.max_user_watches=%3")
                .arg(limit > 0 ? QString::number(limit) : QStringLiteral("unknown"), root, QString::number(suggested)));
        _owner->reportWatchLimit(root, suggested);
        _owner->reportCoverage(root, QStringLiteral("the system's limit of watched folders (fs.inotify.max_user_watches"
                                                    " = %1) was reached")
                                         .arg(limit));
        return;
    }
    // Below a root, a folder that vanished before its watch came, or a symbolic
    // link, is nothing to report.
    if (folder.parent >= 0 && (error == ENOENT || error == ENOTDIR || error == ELOOP))
        return;
    NSLog(QStringLiteral("cannot watch %1: %2").arg(QFile::decodeName(folder.path), qt_error_string(error)));
    if (folder.parent < 0)
        _owner->reportCoverage(QFile::decodeName(folder.path), error == ENOENT || error == ENOTDIR
                                                                   ? QStringLiteral("it does not exist")
                                                                   : qt_error_string(error));
    if (folder.parent < 0 && (error == ENOENT || error == ENOTDIR))
        awaitRoot(folder.path);
}

void InotifyWatcher::Worker::forgetTree(int wd)
{
    QMultiHash<int, int> children;
    for (auto folder = _folders.cbegin(); folder != _folders.cend(); ++folder)
        children.insert(folder->parent, folder.key());
    QList<int> doomed{wd};
    for (qsizetype i = 0; i < doomed.size(); ++i)
        doomed.append(children.values(doomed.at(i)));
    for (int each : std::as_const(doomed)) {
        inotify_rm_watch(_fd, each);
        _folders.remove(each);
        _movedWithinTrees.remove(each);
    }
}

QByteArray InotifyWatcher::Worker::pathOf(int wd) const
{
    QVarLengthArray<const Folder *, 32> chain;
    for (int at = wd; at >= 0;) {
        const auto folder = _folders.constFind(at);
        if (folder == _folders.cend() || chain.size() > 4096)
            return {};
        chain.append(&*folder);
        at = folder->parent;
    }
    QByteArray path = chain.last()->name;
    for (qsizetype i = chain.size() - 2; i >= 0; --i)
        path = joined(path, chain.at(i)->name);
    return path;
}

QByteArray InotifyWatcher::Worker::rootOf(int wd) const
{
    QByteArray root;
    for (int at = wd, steps = 0; at >= 0 && steps <= 4096; ++steps) {
        const auto folder = _folders.constFind(at);
        if (folder == _folders.cend())
            break;
        root = folder->name;
        at = folder->parent;
    }
    return root;
}

bool InotifyWatcher::Worker::isUnwatched(const QByteArray &path) const
{
    return _isUnwatched && _isUnwatched(QFile::decodeName(path));
}

void InotifyWatcher::Worker::note(const QByteArray &path, quint32 flags)
{
    const QString name = QFile::decodeName(path);
    if (QFile::encodeName(name) != path) {
        // A name that is not UTF-8 does not survive as text, so the folder that
        // holds it is scanned whole instead; its removal needs nothing.
        const qsizetype slash = path.lastIndexOf('/');
        if (slash > 0 && (flags & (ItemCreated | ItemRenamed | ItemModified)))
            note(path.left(slash), MustScanSubDirs | ItemModified | ItemIsDir);
        return;
    }
    const auto known = _batchIndex.constFind(name);
    if (known != _batchIndex.cend()) {
        // Merged, a removal followed by a new file of the same name would read as a
        // removal alone, so the removal goes out first in a batch of its own.
        if (!(_batch.at(*known).flags & ItemRemoved) || !(flags & (ItemCreated | ItemRenamed))) {
            _batch[*known].flags |= flags;
            return;
        }
        closeBatch();
    }
    _batchIndex.insert(name, _batch.size());
    _batch.append({0, name, flags});
    if (!_latencyTimer->isActive())
        _latencyTimer->start(_latencyMs);
}

void InotifyWatcher::Worker::closeBatch()
{
    _latencyTimer->stop();
    if (_batch.isEmpty())
        return;
    for (FileSystemEvent &event : _batch)
        event.eventId = nextEventId();
    _batchIndex.clear();
    _owner->takeBatch(std::exchange(_batch, {}));
}

InotifyWatcher::InotifyWatcher(QObject *parent)
    : FileSystemWatcher(parent)
{
    _thread.setObjectName(QStringLiteral("inotify"));
}

InotifyWatcher::~InotifyWatcher()
{
    stop();
}

bool InotifyWatcher::start(const QStringList &roots, double latency, const FolderTest &isUnwatched)
{
    if (_worker)
        return false;
    // Taken before answering, so that whatever the caller writes next counts as new.
    const qint64 changedSinceNs = stampClockNs() - stampMarginNs;
    const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        NSLog(QStringLiteral("cannot watch %1: %2").arg(roots.join(QStringLiteral(", ")), qt_error_string(errno)));
        return false;
    }
    QStringList cleanRoots;
    for (const QString &root : roots)
        cleanRoots.append(root.isEmpty() ? root : QDir::cleanPath(root));
    _worker = new Worker(this, fd, cleanRoots, qMax(0, qRound(latency * 1000)), isUnwatched, _watchBudget,
                         changedSinceNs);
    _worker->moveToThread(&_thread);
    _thread.start();
    QMetaObject::invokeMethod(
        _worker, [worker = _worker] { worker->begin(); }, Qt::QueuedConnection);
    return true;
}

void InotifyWatcher::stop()
{
    if (!_worker)
        return;
    // Its timer and socket notifier belong to the worker thread, so it is deleted there.
    connect(&_thread, &QThread::finished, _worker, &QObject::deleteLater);
    // Ends a walk of a large tree at the next folder rather than at the end of its slice.
    _thread.requestInterruption();
    _thread.quit();
    _thread.wait();
    _worker = nullptr;
    QMutexLocker locker(&_inboxLock);
    _inbox.clear();
}

bool InotifyWatcher::isWatching() const
{
    return _worker != nullptr;
}

void InotifyWatcher::flushSync()
{
    if (!_worker)
        return;
    QMetaObject::invokeMethod(
        _worker, [worker = _worker] { worker->flush(true); }, Qt::BlockingQueuedConnection);
    deliverBatches();
}

void InotifyWatcher::flushAsync()
{
    if (_worker)
        QMetaObject::invokeMethod(
            _worker, [worker = _worker] { worker->flush(false); }, Qt::QueuedConnection);
}

void InotifyWatcher::holdReading(bool hold)
{
    if (_worker)
        QMetaObject::invokeMethod(
            _worker, [worker = _worker, hold] { worker->holdReading(hold); }, Qt::BlockingQueuedConnection);
}

QString InotifyWatcher::description() const
{
    if (!_worker)
        return {};
    QString text;
    QMetaObject::invokeMethod(
        _worker, [worker = _worker] { return worker->description(); }, Qt::BlockingQueuedConnection, &text);
    return text;
}

void InotifyWatcher::takeBatch(QList<FileSystemEvent> batch)
{
    bool first;
    {
        QMutexLocker locker(&_inboxLock);
        first = _inbox.isEmpty();
        _inbox.append(std::move(batch));
    }
    if (first)
        QMetaObject::invokeMethod(
            this, [this] { deliverBatches(); }, Qt::QueuedConnection);
}

void InotifyWatcher::reportSetupFinished(qint64 watchedFolders)
{
    QMetaObject::invokeMethod(
        this,
        [this, watchedFolders] {
            if (_worker)
                emit setupFinished(watchedFolders);
        },
        Qt::QueuedConnection);
}

void InotifyWatcher::reportWatchLimit(const QString &root, qint64 suggestedLimit)
{
    // Files in the folders left out would never be scanned, so the user is told, not only the log.
    QMetaObject::invokeMethod(
        this,
        [this, root, suggestedLimit] {
            UserNotificationCenter *center = UserNotificationCenter::defaultCenter();
            if (_worker && center->canDeliver())
                center->deliverNotification(
                    Localization::text("WATCH_LIMIT_TITLE"),
                    Localization::text("WATCH_LIMIT_MESSAGE").arg(root, QString::number(suggestedLimit)));
        },
        Qt::QueuedConnection);
}

void InotifyWatcher::reportCoverage(const QString &root, const QString &problem)
{
    QMetaObject::invokeMethod(
        this,
        [this, root, problem] {
            if (_worker)
                emit coverageChanged(root, problem);
        },
        Qt::QueuedConnection);
}

void InotifyWatcher::deliverBatches()
{
    QList<QList<FileSystemEvent>> batches;
    {
        QMutexLocker locker(&_inboxLock);
        batches.swap(_inbox);
    }
    for (const QList<FileSystemEvent> &batch : std::as_const(batches)) {
        // A receiver may stop the watcher while it is being called.
        if (!_worker)
            return;
        emit eventsOccurred(batch);
    }
}
