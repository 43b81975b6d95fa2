#pragma once

#include <QString>

// What the settings-and-engine coordinator reports to its owner. Operations
// marked optional are sent only when respondsTo() says the receiver has them.
class QXUtilsDelegate
{
public:
    enum class Optional {
        AppendToConsole,
        NeedToUpdateDB,
        NeedToUpdateEngineDisplayVersionString,
        ClamdStarted,
        ClamdFailedToStart,
        ClamdAlreadyRunning,
        SavedSearchCutAtPath,
    };

    virtual ~QXUtilsDelegate() = default;

    virtual bool respondsTo(Optional) const { return false; }

    virtual bool useClamd() = 0;
    virtual bool wantScanStatusUpdates() = 0;
    virtual bool wantUpdatePercentages() = 0;

    virtual void scanStarted() = 0;
    virtual void scanFinishedWithStatus(int status) = 0;
    virtual void scanCrashed(const QString &reason) = 0;
    virtual void infectionFound(const QString &infectionName, const QString &inFile) = 0;
    virtual void updateProgressBarWithCountOfFilesScannedSoFar(quint32 count) = 0;

    virtual void engineNotFound() = 0;
    virtual void engineFoundWithVersionString(const QString &version) = 0;
    virtual void updateStarted() = 0;
    virtual void updateFinishedWithStatus(int status) = 0;
    virtual void updateProgressWithMessage(const QString &message) = 0;
    virtual void updateProgressWithPercentDone(double percent) = 0;
    virtual void fileCounterReturned(qint64 count) = 0;

    // Optional.
    virtual void appendToConsole(const QString &) {}
    virtual void needToUpdateDB() {}
    virtual void needToUpdateEngineDisplayVersionString(const QString &) {}
    virtual void clamdStarted() {}
    virtual void clamdFailedToStart() {}
    virtual void clamdAlreadyRunning() {}
    // A saved search stopped after this many entries: what lies past them
    // was not scanned.
    virtual void savedSearchCutAtPath(const QString &, qint64) {}
};
