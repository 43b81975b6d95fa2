#include "DistributedNotificationCenter.h"

#include "platform/DBusDistributedNotificationCenter.h"
#include "platform/SharedInstance.h"

namespace {
// Observers may remove themselves during static destruction, after the
// application object and its bus threads are gone.
SharedInstance<DistributedNotificationCenter> shared([]() -> DistributedNotificationCenter * {
    return new DBusDistributedNotificationCenter;
});
} // namespace

DistributedNotificationCenter *DistributedNotificationCenter::defaultCenter()
{
    return shared.get();
}

void DistributedNotificationCenter::setDefaultCenter(DistributedNotificationCenter *center)
{
    shared.set(center);
}
