#pragma once

#include "platform/FileSystemWatcher.h"

#include <QMutex>
#include <QThread>

// inotify over every folder of the watched trees. Walking the trees, every
// inotify call and the reading of the inotify descriptor happen on a thread of
// the watcher's own, so that setting up a large tree never holds the caller's
// thread; finished batches come back to this object's thread by a queued call.
class InotifyWatcher : public FileSystemWatcher
{
    Q_OBJECT
public:
    explicit InotifyWatcher(QObject *parent = nullptr);
    ~InotifyWatcher() override;

    bool start(const QStringList &roots, double latency, const FolderTest &isUnwatched) override;
    void stop() override;
    bool isWatching() const override;
    void flushSync() override;
    void flushAsync() override;
    QString description() const override;

    // While held, the descriptor is not read, so the kernel's queue fills as it
    // would behind a stalled thread; letting go reads what is there.
    void holdReading(bool hold);
    // From the next start, at most this many folders get a watch, as if the
    // kernel's limit were reached there; negative for the kernel's own limit.
    void setWatchBudget(qint64 folders) { _watchBudget = folders; }

private:
    class Worker;

    // Called on the worker thread.
    void takeBatch(QList<FileSystemEvent> batch);
    void reportSetupFinished(qint64 watchedFolders);
    void reportWatchLimit(const QString &root, qint64 suggestedLimit);
    void reportCoverage(const QString &root, const QString &problem);

    void deliverBatches();

    QThread _thread;
    Worker *_worker = nullptr;
    qint64 _watchBudget = -1;
    QMutex _inboxLock;
    QList<QList<FileSystemEvent>> _inbox;
};
