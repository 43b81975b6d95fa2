#include "ProcessList.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <unistd.h>

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

bool ended(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    // "pid (comm) state ...": the name may hold ") ", the state follows the last one.
    const QByteArray line = stat.readAll();
    const qsizetype close = line.lastIndexOf(')');
    return close < 0 || line.mid(close + 2, 1) == "Z";
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

QStringList ProcessList::arguments(qint64 pid)
{
    QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
    if (pid <= 0 || !cmdline.open(QIODevice::ReadOnly))
        return {};
    QByteArray data = cmdline.readAll();
    if (data.endsWith('\0'))
        data.chop(1);
    QStringList arguments;
    if (data.isEmpty())
        return arguments;
    for (const QByteArray &argument : data.split('\0'))
        arguments.append(QFile::decodeName(argument));
    return arguments;
}

bool ProcessList::runsAsCurrentUser(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (pid <= 0 || !status.open(QIODevice::ReadOnly))
        return false;
    // "Uid:\treal\teffective\tsaved\tfilesystem"
    for (QByteArray line = status.readLine(); !line.isEmpty(); line = status.readLine()) {
        if (!line.startsWith("Uid:"))
            continue;
        const QList<QByteArray> ids = line.mid(4).simplified().split(' ');
        const QByteArray me = QByteArray::number(::getuid());
        return std::all_of(ids.cbegin(), ids.cend(), [&me](const QByteArray &id) { return id == me; });
    }
    return false;
}

bool ProcessList::killAndWait(qint64 pid, std::chrono::milliseconds limit)
{
    if (pid <= 0 || (::kill(pid_t(pid), SIGKILL) != 0 && errno != ESRCH))
        return false;
    QDeadlineTimer deadline(limit);
    while (!ended(pid)) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(20);
    }
    return true;
}
