#include "DistributedNotificationCenter.h"

#include "platform/DBusDistributedNotificationCenter.h"

namespace {
DistributedNotificationCenter *chosenCenter = nullptr;
}

DistributedNotificationCenter *DistributedNotificationCenter::defaultCenter()
{
    if (chosenCenter)
        return chosenCenter;
    // Never deleted: observers may remove themselves during static destruction,
    // after the application object and its bus threads are gone.
    static DistributedNotificationCenter *const sessionCenter = new DBusDistributedNotificationCenter();
    return sessionCenter;
}

void DistributedNotificationCenter::setDefaultCenter(DistributedNotificationCenter *center)
{
    chosenCenter = center;
}
