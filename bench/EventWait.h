#pragma once

#include <functional>

// Runs the calling thread's event loop while waiting. Unlike QTest::qWaitFor
// it never sleeps with events pending, so a signal is handled (and timed) the
// moment it arrives.
class EventWait
{
public:
    // Until done() holds, checked after every round of events and at least
    // every 50 ms; false when timeoutMs passed first.
    static bool until(const std::function<bool()> &done, int timeoutMs);
    // Handles events for ms milliseconds, waking only for them.
    static void forMs(int ms);
};
