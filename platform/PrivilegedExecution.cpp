#include "PrivilegedExecution.h"

#include "PkexecPrivilegedExecution.h"
#include "SharedInstance.h"

namespace {
SharedInstance<PrivilegedExecution> shared([]() -> PrivilegedExecution * { return new PkexecPrivilegedExecution; });
}

PrivilegedExecution *PrivilegedExecution::sharedExecution()
{
    return shared.get();
}

void PrivilegedExecution::setSharedExecution(PrivilegedExecution *execution)
{
    shared.set(execution);
}
