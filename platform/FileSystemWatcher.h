#pragma once

#include <QList>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

// One path of a batch, with every change to it during the batch OR-ed into flags.
struct FileSystemEvent
{
    quint64 eventId = 0;
    QString path;
    quint32 flags = 0;
};

Q_DECLARE_METATYPE(FileSystemEvent)

// Watches whole folder trees and hands out the changes in batches: one event per
// path and batch, in the order the paths first changed, with the flag bits the
// agent's event intake tests.
class FileSystemWatcher : public QObject
{
    Q_OBJECT
public:
    using FolderTest = std::function<bool(const QString &folder)>;

    enum Flag : quint32 {
        MustScanSubDirs = 0x00000001,
        RootChanged = 0x00000020,
        ItemCreated = 0x00000100,
        ItemRemoved = 0x00000200,
        ItemInodeMetaMod = 0x00000400,
        ItemRenamed = 0x00000800,
        ItemModified = 0x00001000,
        ItemIsFile = 0x00010000,
        ItemIsDir = 0x00020000,
    };

    using QObject::QObject;
    ~FileSystemWatcher() override = default;

    // The watcher of this system; it lives on the calling thread.
    static FileSystemWatcher *create(QObject *parent = nullptr);
    // Tests hand in their own maker; an empty one restores the system's.
    static void setFactory(std::function<FileSystemWatcher *(QObject *parent)> factory);

    // Follows the clock in microseconds and never repeats within the process, so
    // identifiers grow across batches, watchers and restarts of the program.
    static quint64 nextEventId();

    // Watches every folder below roots. Batches arrive through eventsOccurred on
    // this object's thread, latency seconds after their first change; a file changed
    // after this answered is reported even when its folder's watch came later. Folders
    // isUnwatched answers true for get no watch, nor does anything below them; it is
    // called on the watcher's own thread. Roots that cannot be watched are logged and
    // do not make this fail; false only when the system gives no watcher or this one
    // is already running.
    virtual bool start(const QStringList &roots, double latency, const FolderTest &isUnwatched) = 0;
    virtual void stop() = 0;
    virtual bool isWatching() const = 0;
    // Waits until the trees present at the start are watched, then emits every
    // pending change before returning. Call on this object's thread.
    virtual void flushSync() = 0;
    // Emits the pending changes soon, without waiting out the latency.
    virtual void flushAsync() = 0;
    virtual QString description() const = 0;

signals:
    void eventsOccurred(const QList<FileSystemEvent> &events);
    // The trees present at the start are watched (folders hidden by the system's limits aside).
    void setupFinished(qint64 watchedFolders);
    // A root, or part of its tree, cannot be watched, and why; an empty
    // problem once it is watched whole again.
    void coverageChanged(const QString &root, const QString &problem);
};
