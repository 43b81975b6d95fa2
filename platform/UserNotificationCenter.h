#pragma once

#include <QObject>
#include <QString>

class StatusItem;

// Notifications for the user on the desktop: a title, a line of text and a
// click that brings the agent forward.
class UserNotificationCenter : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
    ~UserNotificationCenter() override = default;

    // Made on first use (after the application object exists) for the
    // session bus; never deleted.
    static UserNotificationCenter *defaultCenter();
    // Tests give their own; nullptr returns to the session-bus one.
    static void setDefaultCenter(UserNotificationCenter *center);

    // False only once it is known that a notification would reach no one.
    virtual bool canDeliver() const = 0;
    // Shown with the desktop's usual sound; a click on it emits activated().
    virtual void deliverNotification(const QString &title, const QString &informativeText) = 0;
    // Where the desktop has no notification service, notifications become
    // the item's own messages and a click on one emits activated().
    virtual void setFallbackStatusItem(StatusItem *item) = 0;

signals:
    void activated();
    // One of ours went away unclicked (expired or dismissed), where the
    // desktop tells.
    void closed();
};
