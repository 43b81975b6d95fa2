#include "SystemBeep.h"

#include <QApplication>

namespace {

class ApplicationBeep : public SystemBeep
{
public:
    void play() override { QApplication::beep(); }
};

SystemBeep *installed = nullptr;

} // namespace

SystemBeep *SystemBeep::sharedBeep()
{
    static ApplicationBeep real;
    return installed ? installed : &real;
}

void SystemBeep::setSharedBeep(SystemBeep *beep)
{
    installed = beep;
}
