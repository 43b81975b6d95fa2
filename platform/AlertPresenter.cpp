#include "AlertPresenter.h"

#include "MessageBoxAlertPresenter.h"

namespace {
AlertPresenter *presenter = nullptr;
}

AlertPresenter *AlertPresenter::sharedPresenter()
{
    static MessageBoxAlertPresenter real;
    return presenter ? presenter : &real;
}

void AlertPresenter::setSharedPresenter(AlertPresenter *p)
{
    presenter = p;
}
