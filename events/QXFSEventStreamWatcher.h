#pragma once

#include "QXFSEventStreamWatcherDelegate.h"

#include <QObject>
#include <QStringList>
#include <QThread>

class QProcess;

// Runs the event logger "gfslogger" on a thread of its own and hands each
// path it prints that lies in a watched folder, and not in the Trash, to
// the delegate on the main thread. The logger must be root-owned and
// set-ID to watch whole file systems; the watcher has that repaired with
// an administrator's authorisation when it is not.
class QXFSEventStreamWatcher : public QObject
{
    Q_OBJECT
public:
    // initWithDelegate: checks the logger and repairs it if needed. The
    // thread is started separately.
    explicit QXFSEventStreamWatcher(QXFSEventStreamWatcherDelegate *delegate, QObject *parent = nullptr);
    ~QXFSEventStreamWatcher() override;

    void start();

    // Beside the agent's executable, else in the installed helper folder;
    // tests supply their own. The repair program lies beside it.
    static QString gfsloggerPath();
    static void setGfsloggerPath(const QString &path);
    static QString repairToolPath();

    QXFSEventStreamWatcherDelegate *delegate() const { return _delegate; }

    // Owned by root with mode 6755.
    static bool attributesLookGood(const QString &path);
    void repairPermissionsOnGfslogger();

    // Queued onto the watcher's thread without waiting; a logger still
    // running from an earlier start is awaited first.
    void startWatching(const QStringList &folders);
    // Asks the logger to terminate; returns at once.
    void stopWatching();
    bool isTrashedFileAtPath(const QString &path) const;

    // The paths of the logger's output that lie in one of the folders and in
    // none of the Trash folders. A line the output cuts short is kept in
    // partialLine for the next call.
    static QStringList pathsInOutput(QByteArray &partialLine, const QByteArray &output, const QStringList &folders,
                                     const QStringList &trashFolders);

signals:
    // The logger ended, whatever the reason. Sent from the logger's thread.
    void loggerEnded();

private:
    void runLogger(const QStringList &folders, const QStringList &trashFolders);
    void notifiedForStdOutput();
    void notifiedForStdError();

    QXFSEventStreamWatcherDelegate *_delegate;
    QThread _thread;
    // Lives on the thread; what runs there runs in its context.
    QObject *_worker;
    // Touched on the watcher's thread only.
    QProcess *unixTask = nullptr;
    QStringList watchedFolderList;
    QStringList _trashFolders;
    QByteArray _partialLine;
};
