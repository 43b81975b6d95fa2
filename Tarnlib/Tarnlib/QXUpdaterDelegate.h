#pragma once

#include <QString>

// What the definitions updater asks of and reports to its owner. The
// questions are asked on the updater's thread; every report runs on the main
// thread and the updater waits until it has been handled.
class QXUpdaterDelegate
{
public:
    virtual ~QXUpdaterDelegate() = default;

    // Reports.
    virtual void updateStarted() = 0;
    // The launcher's exit code, the signal that ended it, or
    // QXUpdater::launcherNotStartedStatus.
    virtual void updateFinishedWithStatus(int status) = 0;
    virtual void updateProgressWithMessage(const QString &message) = 0;
    virtual void updateProgressWithPercentDone(double percent) = 0;

    // Questions and the setter the engine checker shares (unused here).
    virtual bool updaterNeedsExit1FreshclamFlag() const = 0;
    virtual void setUpdaterNeedsExit1FreshclamFlag(bool flag) = 0;
    virtual bool logUpdates() const = 0;
    virtual QString enginePath() const = 0;
    virtual QString updateLogPath() const = 0;
    virtual bool wantUpdatePercentages() const = 0;
};
