#include "UserNotificationCenter.h"

#include "platform/FreedesktopNotificationCenter.h"
#include "platform/SharedInstance.h"

namespace {
SharedInstance<UserNotificationCenter> shared([]() -> UserNotificationCenter * {
    return new FreedesktopNotificationCenter;
});
}

UserNotificationCenter *UserNotificationCenter::defaultCenter()
{
    return shared.get();
}

void UserNotificationCenter::setDefaultCenter(UserNotificationCenter *center)
{
    shared.set(center);
}
