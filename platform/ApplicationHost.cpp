#include "ApplicationHost.h"

#include <QCoreApplication>

namespace {
ApplicationHost::TerminateHandler handler;
}

void ApplicationHost::terminate()
{
    if (handler)
        handler();
    else
        QCoreApplication::quit();
}

void ApplicationHost::setTerminateHandler(TerminateHandler h)
{
    handler = std::move(h);
}
