#pragma once

#include <QFile>
#include <QString>

// The state letter of a process from /proc ('R', 'S', 'T' stopped, 'Z'
// zombie), or '\0' when there is no such process.
inline char processState(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (pid <= 0 || !stat.open(QIODevice::ReadOnly))
        return '\0';
    const QByteArray line = stat.readAll();
    // The command name in parentheses may itself hold blanks.
    const qsizetype close = line.lastIndexOf(')');
    return close < 0 || close + 2 >= line.size() ? '\0' : line.at(close + 2);
}
