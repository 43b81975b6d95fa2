#include "LogCapture.h"

#include <QMutexLocker>

LogCapture::LogCapture()
{
    _previous = SystemLog::setSink([this](const QString &line) {
        QMutexLocker locker(&_lock);
        _lines.append(line);
    });
}

LogCapture::~LogCapture()
{
    SystemLog::setSink(_previous);
}

QStringList LogCapture::lines() const
{
    QMutexLocker locker(&_lock);
    return _lines;
}

bool LogCapture::contains(const QString &line) const
{
    return count(line) > 0;
}

int LogCapture::count(const QString &line) const
{
    QMutexLocker locker(&_lock);
    return int(_lines.count(line));
}

bool LogCapture::anyContains(const QString &fragment) const
{
    QMutexLocker locker(&_lock);
    for (const QString &line : _lines)
        if (line.contains(fragment))
            return true;
    return false;
}
