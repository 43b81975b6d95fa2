#include "PrivilegedExecution.h"

#include "PkexecPrivilegedExecution.h"

namespace {
PrivilegedExecution *installed = nullptr;
}

PrivilegedExecution *PrivilegedExecution::sharedExecution()
{
    static PkexecPrivilegedExecution real;
    return installed ? installed : &real;
}

void PrivilegedExecution::setSharedExecution(PrivilegedExecution *execution)
{
    installed = execution;
}
