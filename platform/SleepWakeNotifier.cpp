#include "SleepWakeNotifier.h"

#include "platform/LogindSleepWakeNotifier.h"
#include "platform/SharedInstance.h"

namespace {
SharedInstance<SleepWakeNotifier> shared([]() -> SleepWakeNotifier * { return new LogindSleepWakeNotifier; });
}

SleepWakeNotifier *SleepWakeNotifier::sharedNotifier()
{
    return shared.get();
}

void SleepWakeNotifier::setSharedNotifier(SleepWakeNotifier *notifier)
{
    shared.set(notifier);
}
