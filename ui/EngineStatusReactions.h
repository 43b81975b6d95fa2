#pragma once

#include <QObject>
#include <QString>

class EngineStatusReactionsDelegate;

// How the agent answers the engine check, the daemon start and the
// definitions updates: alerts that end in quitting or in an update, going on
// with the startup once the daemon runs, the update animation, the update
// notification and the engine check that follows every update.
class EngineStatusReactions : public QObject
{
    Q_OBJECT
public:
    explicit EngineStatusReactions(EngineStatusReactionsDelegate *delegate, QObject *parent = nullptr);

    void engineNotFound();
    void engineFoundWithVersionString(const QString &version);
    void needToUpdateDB();
    void clamdStarted();
    void clamdAlreadyRunning();
    void clamdFailedToStart();
    void updateStarted();
    void updateFinishedWithStatus(int status);

    // The engine check that follows an update waits this long.
    static constexpr int recheckDelayMs = 2000;

private:
    EngineStatusReactionsDelegate *_delegate;
};
