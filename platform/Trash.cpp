#include "Trash.h"

#include "FreedesktopTrash.h"
#include "SharedInstance.h"

namespace {
SharedInstance<Trash> shared([]() -> Trash * { return new FreedesktopTrash; });
}

Trash *Trash::sharedTrash()
{
    return shared.get();
}

void Trash::setSharedTrash(Trash *trash)
{
    shared.set(trash);
}
