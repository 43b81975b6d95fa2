#pragma once

class SCEvent;
class SCEvents;

// Receives the events of an SCEvents stream, on the thread that started it.
class SCEventListenerProtocol
{
public:
    virtual ~SCEventListenerProtocol() = default;

    // The event lives only for the call; keep a copy to hold on to it.
    virtual void pathWatcherEventOccurred(SCEvents *pathWatcher, SCEvent *eventOccurred) = 0;
};
