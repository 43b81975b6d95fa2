#include "SleepWakeNotifier.h"

#include "platform/LogindSleepWakeNotifier.h"

namespace {
SleepWakeNotifier *chosenNotifier = nullptr;
}

SleepWakeNotifier *SleepWakeNotifier::sharedNotifier()
{
    if (chosenNotifier)
        return chosenNotifier;
    // Never deleted: it must outlive every receiver, including those torn down after the application object.
    static SleepWakeNotifier *const systemNotifier = new LogindSleepWakeNotifier();
    return systemNotifier;
}

void SleepWakeNotifier::setSharedNotifier(SleepWakeNotifier *notifier)
{
    chosenNotifier = notifier;
}
