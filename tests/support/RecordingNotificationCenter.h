#pragma once

#include "platform/UserNotificationCenter.h"

#include <QPair>
#include <QStringList>

// Keeps the notifications instead of showing them; installs itself while it
// lives. A test emits activated() to play the user's click.
class RecordingNotificationCenter : public UserNotificationCenter
{
public:
    RecordingNotificationCenter() { UserNotificationCenter::setDefaultCenter(this); }
    ~RecordingNotificationCenter() override { UserNotificationCenter::setDefaultCenter(nullptr); }

    bool canDeliver() const override { return true; }
    void deliverNotification(const QString &title, const QString &informativeText) override
    {
        delivered.append({title, informativeText});
    }
    void setFallbackStatusItem(StatusItem *) override {}

    QList<QPair<QString, QString>> delivered;
};
