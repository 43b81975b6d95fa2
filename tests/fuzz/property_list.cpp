#include "FuzzApplication.h"
#include "platform/PropertyList.h"

#include <QByteArray>

// XML and binary property lists: saved searches, system version files.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    const QVariant value = PropertyList::fromData(fuzzInput(data, size));
    // What was read must be writable again, as settings are.
    if (value.isValid())
        PropertyList::toXml(value);
    return 0;
}
