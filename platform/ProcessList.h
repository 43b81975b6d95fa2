#pragma once

#include <QStringList>

// The programs of the running processes, as the kernel names them in
// /proc/<pid>/exe (symbolic links resolved).
class ProcessList
{
public:
    // One path per process whose program can be read; processes of other
    // users (or ones that end while the list is read) are left out.
    static QStringList executablePaths();
};
