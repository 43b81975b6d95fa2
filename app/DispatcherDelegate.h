#pragma once

class QXUtils;

class DispatcherDelegate
{
public:
    virtual ~DispatcherDelegate() = default;

    virtual bool readyToScan() = 0;
    // The delegate takes the batch with grabItemsToScan().
    virtual void startScan() = 0;
    virtual QXUtils *utils() = 0;
};
