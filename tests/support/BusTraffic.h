#pragma once

#include <QProcess>
#include <QString>

// The calls that programs make to the session bus itself, in the order the
// bus saw them, read by dbus-monitor. Signals sent the moment a name
// appears are lost or heard by timing; this order says which it must be.
class BusTraffic
{
public:
    // Answers once the monitor sees the traffic.
    bool start();
    ~BusTraffic();

    // Where a call to the bus whose first argument holds the part comes in
    // the traffic; -1 when it has not come within a few seconds.
    qsizetype positionOfCall(const QString &member, const QString &argumentPart);
    QString text();

private:
    QProcess _monitor;
    QByteArray _traffic;
};
