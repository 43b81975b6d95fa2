#pragma once

#include <QString>
#include <functional>

// Diagnostics for the system log: syslog(3) under the executable's name,
// mirrored to standard error.
class SystemLog
{
public:
    using Sink = std::function<void(const QString &line)>;

    static void log(const QString &line);

    // Replaces the destination (tests capture lines); an empty sink returns
    // to syslog and standard error. Answers the sink it replaced, which no
    // thread is running any more. A sink must not log.
    static Sink setSink(Sink sink);
};

// NSLog-style shorthand: NSLog(QStringLiteral("starting clamd..."));
inline void NSLog(const QString &line)
{
    SystemLog::log(line);
}
