#include "Trash.h"

#include "FreedesktopTrash.h"

namespace {
Trash *installed = nullptr;
}

Trash *Trash::sharedTrash()
{
    static FreedesktopTrash real;
    return installed ? installed : &real;
}

void Trash::setSharedTrash(Trash *trash)
{
    installed = trash;
}
