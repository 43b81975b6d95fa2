#pragma once

#include "QXWorkerThread.h"

#include <QByteArray>
#include <QFile>
#include <QMutex>
#include <QString>
#include <QStringDecoder>
#include <QStringList>

#include <memory>

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
    // perform([=] { scanner->runScanOnFiles(batch); }).
    void runScanOnFiles(const QStringList &paths);

    // Appends text and a newline to the scan log when this run logs.
    void writeToLog(const QString &text);

    // A new unique path in the temporary folder: "<tmp>/<prefix>-<UUID>".
    static QString pathForTemporaryFileWithPrefix(const QString &prefix);

    // Called from the main thread while a run is in progress.
    bool suspendScan();
    bool resumeScan();
    // Toggles suspension; answers whether the child is now suspended.
    bool pause();
    // Terminates the child; a suspended child is continued so that it can end.
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

private:
    RunResult runPart(const QString &program, const QStringList &arguments, const QString &pathAlone);
    QStringList argumentsForBatch(const QStringList &paths);
    QStringList commonArguments(const QStringList &paths);
    void openScanLog();
    void handleLine(const QString &line);
    void notifiedForComplete(const RunResult &result);

    QXScannerDelegate *_delegate;
    bool _delegateWantsUpdates = false;
    bool _logScans = false;
    // Written by the main thread's pause operations and by the run's start.
    bool _usingClamd = false;
    QString _partialOutput;
    // The one name of a call of its own, whose output is read at its end.
    QString _pathAlone;
    // Keeps a character whose bytes arrive in two chunks whole.
    QStringDecoder _outputDecoder;
    QString _scanListTempFilePath;
    QStringList _thePathsToScan;
    std::unique_ptr<QFile> _loggerFileHandle;
    QByteArray _returnCharData;
};
