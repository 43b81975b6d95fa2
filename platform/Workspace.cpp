#include "Workspace.h"

#include "DesktopEntryWorkspace.h"

namespace {
Workspace *installed = nullptr;
}

Workspace *Workspace::sharedWorkspace()
{
    static DesktopEntryWorkspace real;
    return installed ? installed : &real;
}

void Workspace::setSharedWorkspace(Workspace *workspace)
{
    installed = workspace;
}
