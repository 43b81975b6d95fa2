#pragma once

#include <QString>

// What the engine checker asks of and reports to its owner. The questions
// and the three setters are called on the checker's thread; the reports on
// the main thread.
class QXEngineCheckerDelegate
{
public:
    virtual ~QXEngineCheckerDelegate() = default;

    // Reports.
    virtual void engineNotFound() = 0;
    virtual void engineCheckFailedTryAgain() = 0;
    // The checker waits until this one has been handled.
    virtual void engineFoundWithVersionString(const QString &version) = 0;
    virtual void needToUpdateDB() = 0;
    virtual void needToUpdateEngine() = 0;
    virtual void clamdStarted() = 0;
    virtual void clamdFailedToStart() = 0;

    // Questions and setters.
    virtual bool updaterNeedsExit1FreshclamFlag() const = 0;
    virtual void setUpdaterNeedsExit1FreshclamFlag(bool flag) = 0;
    virtual bool engineSupportsFileListFlag() const = 0;
    virtual void setEngineSupportsFileListFlag(bool flag) = 0;
    virtual bool useClamd() const = 0;
    virtual QString enginePath() const = 0;
    virtual QString engineShortVersionString() const = 0;
    virtual void setEngineShortVersionString(const QString &version) = 0;
};
