#pragma once

#include "UserServiceManager.h"

// systemd's user manager, reached through systemctl.
class SystemctlUserServiceManager : public UserServiceManager
{
public:
    bool isRunning() override;
    bool control(const QStringList &arguments, QString *error = nullptr) override;
};
