#include "UserServiceManager.h"

#include "SharedInstance.h"
#include "SystemctlUserServiceManager.h"

namespace {
SharedInstance<UserServiceManager> shared([]() -> UserServiceManager * { return new SystemctlUserServiceManager; });
}

UserServiceManager *UserServiceManager::sharedManager()
{
    return shared.get();
}

void UserServiceManager::setSharedManager(UserServiceManager *manager)
{
    shared.set(manager);
}
