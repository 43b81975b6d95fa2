#pragma once

#include "CleanScanJournal.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QString>
#include <QTimer>

// Once the definitions change, the files scanned clean before are scanned
// again, those still unchanged, after every other file. The list still to do
// and how far it got are kept on disk, so that a stop or quit resumes at the
// next start.
class DefinitionsRescan : public QObject
{
    Q_OBJECT
public:
    // Keeps its files in folder, beside the journal.
    DefinitionsRescan(CleanScanJournal *journal, const QString &folder, QObject *parent = nullptr);

    // "ClamAV 1.4.6/27470/Wed Nov 25 10:23:33 2026" has the definitions
    // "27470/Wed Nov 25 10:23:33 2026"; nothing without them.
    static QString definitionsOf(const QString &engineVersion);

    // The engine reported its version: remembers the definitions and, when
    // they differ from the last ones and enabled is set, queues the
    // journal's files. Answers whether it queued them.
    bool definitionsReported(const QString &engineVersion, bool enabled);
    // Drops what is queued (the user turned the rescan off).
    void clear();

    // Whether files wait and the daemon has the new definitions loaded:
    // until then it is asked through the engine's client every second.
    bool hasPending() const { return _position < _pending.size(); }
    bool readyToFeed();
    void setEnginePath(const QString &path) { _enginePath = path; }

    // Up to max files still unchanged since their clean scan; a changed one
    // is skipped, being the watcher's to scan.
    QStringList takeBatch(int max);
    // The batch went through the engine, or did not: it is done or will be
    // handed out again.
    void batchDone();
    void batchAbandoned() { _next = _position; }

    // The line the scan log carries before a batch.
    QString logLineForBatch(const QStringList &batch) const;
    // The definitions' date as the user reads it.
    QString updateDate() const;

private:
    void save();
    void savePosition();
    void askDaemon();

    CleanScanJournal *_journal;
    QString _folder;
    QString _enginePath;
    QString _definitions;
    QList<CleanScanJournal::Entry> _pending;
    qsizetype _position = 0;
    qsizetype _next = 0;
    bool _daemonHasThem = false;
    int _daemonAsked = 0;
    QPointer<QProcess> _asking;
    QTimer _askAgain;
};
