#pragma once

#include <QStringList>
#include <chrono>

// The programs of the running processes, as the kernel names them in
// /proc/<pid>/exe (symbolic links resolved); for processes of other users,
// whose link cannot be read, the absolute path they were started as.
class ProcessList
{
public:
    // One path per process whose program can be told; processes that end
    // while the list is read are left out.
    static QStringList executablePaths();

    // The arguments the process was started with, its program first; empty
    // once it has ended.
    static QStringList arguments(qint64 pid);
    // Whether the process runs with this process's real user id.
    static bool runsAsCurrentUser(qint64 pid);
    // Sends SIGKILL (which ends a stopped process too) and waits up to limit
    // for it to end; true once it is gone or a zombie left to its parent.
    static bool killAndWait(qint64 pid, std::chrono::milliseconds limit);
};
