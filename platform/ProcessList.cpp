#include "ProcessList.h"

#include <QDir>
#include <QFile>

QStringList ProcessList::executablePaths()
{
    QStringList paths;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool isPid = false;
        entry.toUInt(&isPid);
        if (!isPid)
            continue;
        // Kernel threads have no program, and other users' processes cannot be read.
        const QString program = QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(entry));
        if (!program.isEmpty())
            paths.append(program);
    }
    return paths;
}
