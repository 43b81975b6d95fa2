#include "Workspace.h"

#include "DesktopEntryWorkspace.h"
#include "SharedInstance.h"

#include <QFileInfo>

namespace {
SharedInstance<Workspace> shared([]() -> Workspace * { return new DesktopEntryWorkspace; });
}

Workspace *Workspace::sharedWorkspace()
{
    return shared.get();
}

void Workspace::setSharedWorkspace(Workspace *workspace)
{
    shared.set(workspace);
}

bool Workspace::isFilePackageAtPath(const QString &path)
{
    static const QStringList extensions{QStringLiteral("app"),    QStringLiteral("bundle"), QStringLiteral("framework"),
                                        QStringLiteral("plugin"), QStringLiteral("pkg"),    QStringLiteral("mpkg"),
                                        QStringLiteral("rtfd"),   QStringLiteral("AppDir")};
    const QFileInfo info(path);
    return info.isDir() && extensions.contains(info.suffix());
}
