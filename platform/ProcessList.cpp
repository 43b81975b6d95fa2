#include "ProcessList.h"

#include <QDir>
#include <QFile>

namespace {

// Another user's /proc/<pid>/exe cannot be read, but its command line can:
// the program it was started as stands in when that is an absolute path.
QString startedAs(const QString &pid)
{
    QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
    if (!cmdline.open(QIODevice::ReadOnly))
        return {};
    const QByteArray first = cmdline.readLine(4096).split('\0').first();
    return first.startsWith('/') ? QFile::decodeName(first) : QString();
}

} // namespace

QStringList ProcessList::executablePaths()
{
    QStringList paths;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool isPid = false;
        entry.toUInt(&isPid);
        if (!isPid)
            continue;
        // Kernel threads have neither a program nor a command line.
        QString program = QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(entry));
        if (program.isEmpty())
            program = startedAs(entry);
        if (!program.isEmpty())
            paths.append(program);
    }
    return paths;
}
