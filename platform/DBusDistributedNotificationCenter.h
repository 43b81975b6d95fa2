#pragma once

#include "platform/DistributedNotificationCenter.h"

#include <QDBusConnection>
#include <QObject>
#include <QSet>

#include <vector>

class QDBusMessage;

// Notifications as D-Bus signals: one signal per notification name on
// interface org.korvane.DistributedNotifications1 at object path
// /org/korvane/DistributedNotifications1, the object as its one string
// argument. Without a connected bus, observing and posting do nothing.
class DBusDistributedNotificationCenter : public QObject, public DistributedNotificationCenter
{
    Q_OBJECT
public:
    static const QString interfaceName;
    static const QString objectPath;

    explicit DBusDistributedNotificationCenter(const QDBusConnection &bus = QDBusConnection::sessionBus(),
                                               QObject *parent = nullptr);
    ~DBusDistributedNotificationCenter() override;

    bool isConnected() const;

    void addObserver(QObject *observer, const QString &name, Handler handler) override;
    void removeObserver(QObject *observer) override;
    void postNotificationName(const QString &name, const QString &object) override;

private slots:
    void deliver(const QDBusMessage &message);

private:
    struct Observation
    {
        quint64 id;
        // Only compared, never dereferenced: it may already be destroyed.
        const QObject *observer;
        QString name;
        Handler handler;
    };

    bool isObserved(const QString &name) const;
    void listen(const QString &name);
    void stopListening(const QString &name);
    void flush();

    QDBusConnection _bus;
    bool _connected;
    quint64 _nextId = 1;
    std::vector<Observation> _observations;
    QSet<const QObject *> _watchedObservers;
};
