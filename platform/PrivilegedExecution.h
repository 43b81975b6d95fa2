#pragma once

#include <QString>

// Runs one program of ours as root after the desktop's authorisation prompt.
// The program takes no arguments, so nothing a caller builds from paths
// ever reaches a root process.
class PrivilegedExecution
{
public:
    struct Result
    {
        // False when no authorisation could be asked for at all.
        bool started = false;
        // The program's exit status, or the agent's own status when the
        // authorisation was refused or dismissed.
        int status = -1;
    };

    virtual ~PrivilegedExecution() = default;

    static PrivilegedExecution *sharedExecution();
    // Tests answer the prompt with their own; nullptr returns to the real one.
    static void setSharedExecution(PrivilegedExecution *execution);

    // Waits until the user answered and the program ended.
    virtual Result runWithPrivileges(const QString &program) = 0;
};
