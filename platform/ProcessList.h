#pragma once

#include <QStringList>

// The programs of the running processes, as the kernel names them in
// /proc/<pid>/exe (symbolic links resolved); for processes of other users,
// whose link cannot be read, the absolute path they were started as.
class ProcessList
{
public:
    // One path per process whose program can be told; processes that end
    // while the list is read are left out.
    static QStringList executablePaths();
};
