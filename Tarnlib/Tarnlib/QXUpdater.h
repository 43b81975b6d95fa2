#pragma once

#include "QXWorkerThread.h"

class QXUpdaterDelegate;

// Updates the engine's virus definitions by running the engine's update
// launcher, relays its output lines as progress and reports its exit code.
class QXUpdater : public QXWorkerThread
{
public:
    // The end status when the launcher cannot be started at all. It is
    // neither an exit code (0-255) nor a signal number, and like every status
    // other than 0, 1 and 9 it means that the update failed.
    static constexpr int launcherNotStartedStatus = -1;

    explicit QXUpdater(QXUpdaterDelegate *delegate);
    ~QXUpdater() override;

    // On the updater's thread (through perform()).
    void runUpdate();

    // On the main thread.
    bool suspendUpdate();
    bool resumeUpdate();
    // Toggles suspension; answers whether the launcher is now suspended.
    bool pause();
    void stop();

    QXUpdaterDelegate *delegate() const { return _delegate; }
    void setDelegate(QXUpdaterDelegate *delegate) { _delegate = delegate; }
    bool needsExit1FreshclamFlag() const { return _needsExit1FreshclamFlag; }
    void setNeedsExit1FreshclamFlag(bool flag) { _needsExit1FreshclamFlag = flag; }
    bool delegateWantsUpdates() const { return _delegateWantsUpdates; }
    void setDelegateWantsUpdates(bool flag) { _delegateWantsUpdates = flag; }
    bool needsDNSfix() const { return _needsDNSfix; }
    void setNeedsDNSfix(bool flag) { _needsDNSfix = flag; }

protected:
    void notifiedForStdOutput(const QByteArray &chunk) override;
    void notifiedForStdError(const QByteArray &chunk) override;

private:
    QXUpdaterDelegate *_delegate;
    bool _needsExit1FreshclamFlag = false;
    bool _delegateWantsUpdates = false;
    bool _needsDNSfix = false;
};
