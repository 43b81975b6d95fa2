#include "StatusItem.h"

#include "TrayStatusItem.h"

StatusItem *StatusItem::create(QObject *parent)
{
    return new TrayStatusItem(parent);
}
