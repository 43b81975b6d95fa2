#pragma once

#include <QDBusConnection>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A dbus-daemon of the test's own that lets everyone send anything and own
// any name, standing in for the system bus. Connections made through it are
// closed with it.
class PrivateBus
{
public:
    PrivateBus();
    ~PrivateBus();

    bool isRunning() const;
    QString address() const;
    // A new connection of its own, seen by the bus as a separate peer.
    QDBusConnection connect();

private:
    QTemporaryDir _dir;
    QProcess _daemon;
    QString _address;
    QStringList _connectionNames;
};
