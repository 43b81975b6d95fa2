#pragma once

#include "QtPrinters.h"
#include "platform/SystemLog.h"

#include <QMutex>
#include <QStringList>

// Collects system-log lines while it lives, instead of sending them out.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    QStringList lines() const;
    bool contains(const QString &line) const;
    int count(const QString &line) const;
    bool anyContains(const QString &fragment) const;

private:
    mutable QMutex _lock;
    QStringList _lines;
    SystemLog::Sink _previous;
};
