#include "SystemBeep.h"

#include "SharedInstance.h"

#include <QApplication>

namespace {

class ApplicationBeep : public SystemBeep
{
public:
    void play() override { QApplication::beep(); }
};

SharedInstance<SystemBeep> shared([]() -> SystemBeep * { return new ApplicationBeep; });

} // namespace

SystemBeep *SystemBeep::sharedBeep()
{
    return shared.get();
}

void SystemBeep::setSharedBeep(SystemBeep *beep)
{
    shared.set(beep);
}
