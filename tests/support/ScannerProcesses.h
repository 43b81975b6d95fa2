#pragma once

#include <QByteArray>
#include <QDirIterator>
#include <QFile>
#include <QList>

#include <unistd.h>

// The scanner processes (clamdscan or clamscan) this test process runs now;
// the engine check is no scan.
inline QList<qint64> scannerChildren()
{
    QList<qint64> children;
    for (QDirIterator it(QStringLiteral("/proc")); it.hasNext();) {
        bool number = false;
        const qint64 pid = it.next().section(QLatin1Char('/'), -1).toLongLong(&number);
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!number || !stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
        const QList<QByteArray> arguments =
            cmdline.open(QIODevice::ReadOnly) ? cmdline.readAll().split('\0') : QList<QByteArray>();
        const bool scans = arguments.contains("-rv") || arguments.contains("--no-summary");
        if (fields.size() > 1 && fields.at(1).toLongLong() == getpid() && fields.at(0) != "Z" && scans)
            children << pid;
    }
    return children;
}
