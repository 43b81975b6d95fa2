#include "Workspace.h"

#include "DesktopEntryWorkspace.h"

#include <QFileInfo>

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

bool Workspace::isFilePackageAtPath(const QString &path)
{
    static const QStringList extensions{QStringLiteral("app"),    QStringLiteral("bundle"), QStringLiteral("framework"),
                                        QStringLiteral("plugin"), QStringLiteral("pkg"),    QStringLiteral("mpkg"),
                                        QStringLiteral("rtfd"),   QStringLiteral("AppDir")};
    const QFileInfo info(path);
    return info.isDir() && extensions.contains(info.suffix());
}
