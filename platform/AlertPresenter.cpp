#include "AlertPresenter.h"

#include "MessageBoxAlertPresenter.h"
#include "SharedInstance.h"

namespace {
SharedInstance<AlertPresenter> shared([]() -> AlertPresenter * { return new MessageBoxAlertPresenter; });
}

AlertPresenter *AlertPresenter::sharedPresenter()
{
    return shared.get();
}

void AlertPresenter::setSharedPresenter(AlertPresenter *presenter)
{
    shared.set(presenter);
}
