#pragma once

#include <QString>
#include <QStringList>

// The user's own service manager (systemd --user), which runs timers for the
// user while a session of theirs is open.
class UserServiceManager
{
public:
    virtual ~UserServiceManager() = default;

    static UserServiceManager *sharedManager();
    // Tests install their own; nullptr returns to the real one.
    static void setSharedManager(UserServiceManager *manager);

    // Whether a manager runs for this user now; without one, unit files
    // written are read at its next start.
    virtual bool isRunning() = 0;
    // Runs `systemctl --user ARGUMENTS`; answers false with its words.
    virtual bool control(const QStringList &arguments, QString *error = nullptr) = 0;
};
