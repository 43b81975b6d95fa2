#include "UserNotificationCenter.h"

#include "platform/FreedesktopNotificationCenter.h"

namespace {
UserNotificationCenter *chosenCenter = nullptr;
}

UserNotificationCenter *UserNotificationCenter::defaultCenter()
{
    if (chosenCenter)
        return chosenCenter;
    // Never deleted: receivers of activated() may be torn down after the application object.
    static UserNotificationCenter *const sessionCenter = new FreedesktopNotificationCenter();
    return sessionCenter;
}

void UserNotificationCenter::setDefaultCenter(UserNotificationCenter *center)
{
    chosenCenter = center;
}
