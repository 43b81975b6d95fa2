#pragma once

#include "QXWorkerThread.h"

#include <QByteArray>
#include <QFile>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringDecoder>
#include <QStringList>

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

class QXScannerDelegate;

// Scans one batch of files per run with the engine's daemon client or its
// stand-alone scanner, writes the scan log and reports infections, progress
// and the end of the scan to its delegate on the main thread.
class QXScanner : public QXWorkerThread
{
    Q_OBJECT
public:
    // Asks the delegate once whether it wants progress and whether scans go
    // through the daemon; neither changes for the life of the worker.
    explicit QXScanner(QXScannerDelegate *delegate, QObject *parent = nullptr);
    ~QXScanner() override;

    // One scan; runs on the worker's thread, so owners send it with
    // perform([=] { scanner->runScanOnFiles(batch); }). A note, when given,
    // heads the run in the scan log.
    void runScanOnFiles(const QStringList &paths, const QString &note = {});

    // Appends text and a newline to the scan log when this run logs.
    void writeToLog(const QString &text);

    // The engine's result line for an infected file, "<path>: <name> FOUND".
    // The name never holds ": ", so the last one ends the path, whatever the
    // path itself holds. Nothing for any other line.
    struct Found
    {
        QString path;
        QString infectionName;
    };
    static std::optional<Found> foundInLine(const QString &line);
    static QString foundLine(const Found &found);

    // A new unique path in the temporary folder: "<tmp>/<prefix>-<UUID>".
    static QString pathForTemporaryFileWithPrefix(const QString &prefix);

    // The daemon's "MaxThreads" in the clamd configuration at path; the
    // daemon's own default of 10 when the file or the setting is missing.
    static int daemonThreadsInConfiguration(const QString &path);
    // How many daemon clients share a batch of that many listed files: one
    // below smallBatchLimit, else one per daemon thread as long as each
    // still gets filesPerClientAtLeast files.
    static int clientsForBatch(qsizetype files, int daemonThreads);
    static constexpr qsizetype smallBatchLimit = 20;
    static constexpr qsizetype filesPerClientAtLeast = 10;

    // Called from the main thread while a run is in progress.
    bool suspendScan();
    bool resumeScan();
    // Toggles suspension; answers whether the child is now suspended.
    bool pause();
    // Terminates the children; suspended ones are continued so that they can end.
    void stop();

    QString scanListTempFilePath() const { return _scanListTempFilePath; }
    void setScanListTempFilePath(const QString &path) { _scanListTempFilePath = path; }
    QFile *loggerFileHandle() const { return _loggerFileHandle.get(); }
    void setLoggerFileHandle(std::unique_ptr<QFile> file) { _loggerFileHandle = std::move(file); }
    QXScannerDelegate *delegate() const { return _delegate; }
    void setDelegate(QXScannerDelegate *delegate) { _delegate = delegate; }
    bool delegateWantsUpdates() const { return _delegateWantsUpdates; }
    void setDelegateWantsUpdates(bool flag) { _delegateWantsUpdates = flag; }
    bool usingClamd() const { return _usingClamd; }

protected:
    void notifiedForStdOutput(const QByteArray &chunk) override;
    void notifiedForChildOutput(int child, const QByteArray &chunk) override;

private:
    // The output fuzzer drives the line handling without running a child.
    friend struct ScannerOutputFuzzer;

    // What one child's output has left: the start of a line still to be
    // completed, and the listed names it has not answered for yet.
    struct ChildOutput
    {
        QString partialOutput;
        // Keeps a character whose bytes arrive in two chunks whole.
        QStringDecoder outputDecoder{QStringDecoder::Utf8};
        QStringList listed;
        QSet<QString> unanswered;
    };

    // Forgets the last run and writes the new run's heading to the scan log.
    void beginRun(const QStringList &paths, const QString &note);
    // The listed paths in one run (or shared among clients), then each path
    // that cannot be listed in a run of its own; one result for them all.
    RunResult runListedAndAlone(const QString &program, const QStringList &listed, const QStringList &alone);
    void reportEnd(const QString &program, const RunResult &result);
    void closeScanLog();
    RunResult runPart(const QString &program, const QStringList &arguments, const QString &pathAlone);
    RunResult runSplit(const QString &program, const QStringList &paths, int clients);
    void takeLine(ChildOutput &output, const QString &line);
    // What is left of the child's output once it has ended.
    void takeRest(ChildOutput &output);
    void takeLastLine(ChildOutput &output);
    QStringList argumentsForBatch(const QStringList &paths, const QString &listPath, QStringList *listed = nullptr);
    QStringList commonArguments(const QStringList &paths);
    void openScanLog();
    void handleLine(const QString &line);
    void notifiedForComplete(const RunResult &result);

    QXScannerDelegate *_delegate;
    bool _delegateWantsUpdates = false;
    bool _logScans = false;
    // Written by the main thread's pause operations and by the run's start.
    bool _usingClamd = false;
    // One per child of the part of the run in progress.
    std::vector<ChildOutput> _childOutputs;
    // The one name of a call of its own, whose output is read at its end.
    QString _pathAlone;
    QString _scanListTempFilePath;
    // The lists of a batch shared by several clients, beside the run's own.
    QStringList _clientListPaths;
    // Names that a failed client of a shared batch never answered for.
    QStringList _unscanned;
    bool _foundInRun = false;
    // Set by stop(): a batch shared by several clients ends as no one of them does.
    std::atomic_bool _stopRequested = false;
    QStringList _thePathsToScan;
    std::unique_ptr<QFile> _loggerFileHandle;
    QByteArray _returnCharData;
};
