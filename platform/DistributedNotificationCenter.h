#pragma once

#include <QObject>
#include <QString>
#include <functional>

// Notifications between programs of the user's session, each a name with an
// object string. Observers hear a name from any sender.
class DistributedNotificationCenter
{
public:
    using Handler = std::function<void(const QString &object)>;

    virtual ~DistributedNotificationCenter() = default;

    static DistributedNotificationCenter *defaultCenter();
    // Tests give their own; nullptr returns to the session-bus one.
    static void setDefaultCenter(DistributedNotificationCenter *center);

    // The observer's lifetime bounds the observation: it ends with removeObserver
    // or when the observer is destroyed.
    virtual void addObserver(QObject *observer, const QString &name, Handler handler) = 0;
    virtual void removeObserver(QObject *observer) = 0;
    // Delivered also when the process exits right after posting.
    virtual void postNotificationName(const QString &name, const QString &object) = 0;
};
