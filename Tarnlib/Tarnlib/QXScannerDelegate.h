#pragma once

#include <QString>
#include <QStringList>

// What the scanner asks its owner and what it reports back. The questions are
// asked on the scanner's thread and must only read settings the owner copied
// before it sent the run; the reports arrive on the main thread.
class QXScannerDelegate
{
public:
    virtual ~QXScannerDelegate() = default;

    // Questions.
    // *whole is cleared when the search was cut short and found files went unlisted.
    virtual QStringList obtainFilesForSavedSearchAtPath(const QString &path, bool *whole = nullptr) = 0;
    virtual bool engineSupportsFileListFlag() const = 0;
    virtual bool quarantineFiles() const = 0;
    virtual bool scanEmailFiles() const = 0;
    virtual bool logScans() const = 0;
    virtual bool suppressSummary() const = 0;
    virtual bool useClamd() const = 0;
    virtual QStringList exclusionStrings() const = 0;
    virtual QStringList exclusionStringsForRootVolScan() const = 0;
    virtual QString enginePath() const = 0;
    virtual QString pathToScanLog() const = 0;
    virtual QStringList pathsToScan() const = 0;
    virtual QString quarantineLocation() const = 0;
    virtual QString additionalCmdArgs() const = 0;
    // Present, even when empty: an empty setting still adds one argument.
    virtual bool hasAdditionalCmdArgs() const = 0;
    virtual bool wantScanStatusUpdates() const = 0;

    // Reports.
    virtual void scanStarted() = 0;
    virtual void scanFinishedWithStatus(int status) = 0;
    virtual void scanCrashed(const QString &reason) = 0;
    // Before the end report of a batch shared by several daemon clients:
    // the names a client that failed (killed, hung) never got to.
    virtual void filesLeftUnscanned(const QStringList &paths) = 0;
    // The engine's line "path: name FOUND".
    virtual void infectionFound(const QString &line) = 0;
    virtual void appendToConsole(const QString &text) = 0;
    virtual void updateProgressWithMessage(const QString &message) = 0;
    virtual void updateProgressBar() = 0;
    virtual void updateProgressWithPercentDone(double percent) = 0;
};
