#pragma once

#include <QString>

class QXFSEventStreamWatcherDelegate
{
public:
    virtual ~QXFSEventStreamWatcherDelegate() = default;
    // Called on the main thread with each changed path in a watched folder.
    virtual void addToWaitingList(const QString &path) = 0;
};
