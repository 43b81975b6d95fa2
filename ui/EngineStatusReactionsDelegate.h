#pragma once

class QObject;
class QXUtils;

// What the engine and update reactions ask of the agent's controller.
class EngineStatusReactionsDelegate
{
public:
    virtual ~EngineStatusReactionsDelegate() = default;

    virtual QXUtils *utils() = 0;
    virtual void continueStartup() = 0;
    virtual void setReadyToScan(bool flag) = 0;
    virtual void launchKorvane(QObject *sender) = 0;
    virtual void updateDefs(QObject *sender) = 0;
    virtual void quit(QObject *sender) = 0;
    virtual void startUpdateAnimation() = 0;
    // Stops the running animation and shows the watching image.
    virtual void stopAnimation() = 0;
};
