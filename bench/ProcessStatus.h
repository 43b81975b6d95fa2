#pragma once

#include <QtGlobal>

// Memory and CPU figures of running processes, as the kernel reports them.
class ProcessStatus
{
public:
    // A "Vm..." line of /proc/<pid>/status (VmRSS, VmHWM) in kB; -1 when it
    // cannot be read.
    static qint64 memoryKb(qint64 pid, const char *field);
    static qint64 ownMemoryKb(const char *field);
    // User plus system time of every thread of this process, in seconds.
    static double ownCpuSeconds();
};
