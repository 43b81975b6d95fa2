#pragma once

#include <QString>

class SCEvent;
class SCEvents;

// Receives the events of an SCEvents stream, on the thread that started it.
class SCEventListenerProtocol
{
public:
    virtual ~SCEventListenerProtocol() = default;

    // The event lives only for the call; keep a copy to hold on to it.
    virtual void pathWatcherEventOccurred(SCEvents *pathWatcher, SCEvent *eventOccurred) = 0;
    // Optional: a watched folder, or part of its tree, cannot be watched and
    // why; an empty problem once it is watched whole again.
    virtual void pathWatcherCoverageChanged(SCEvents *, const QString & /*root*/, const QString & /*problem*/) {}
};
