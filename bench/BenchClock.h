#pragma once

#include <chrono>

// Milliseconds on the monotonic clock, comparable between threads and with
// the moments other parts of the run recorded.
class BenchClock
{
public:
    static double nowMs()
    {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
    }
};
