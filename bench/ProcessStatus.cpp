#include "ProcessStatus.h"

#include <QFile>

#include <sys/resource.h>
#include <unistd.h>

qint64 ProcessStatus::memoryKb(qint64 pid, const char *field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray prefix = QByteArray(field) + ':';
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (!line.startsWith(prefix))
            continue;
        // "VmHWM:	   12088 kB"
        bool ok = false;
        const qint64 value = line.mid(prefix.size()).trimmed().split(' ').value(0).toLongLong(&ok);
        return ok ? value : -1;
    }
    return -1;
}

qint64 ProcessStatus::ownMemoryKb(const char *field)
{
    return memoryKb(::getpid(), field);
}

double ProcessStatus::ownCpuSeconds()
{
    rusage usage{};
    if (::getrusage(RUSAGE_SELF, &usage) != 0)
        return -1;
    const auto seconds = [](const timeval &time) { return double(time.tv_sec) + double(time.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}
