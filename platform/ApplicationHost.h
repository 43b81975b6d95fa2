#pragma once

#include <functional>

// Ends the application loop. The real one quits QApplication, whose
// aboutToQuit runs the controller's applicationWillTerminate; tests take
// the call instead so that their own loop goes on.
class ApplicationHost
{
public:
    using TerminateHandler = std::function<void()>;

    static void terminate();
    // An empty handler returns to quitting the application.
    static void setTerminateHandler(TerminateHandler handler);
};
