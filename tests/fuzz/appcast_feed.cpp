#include "FuzzApplication.h"
#include "platform/AppcastUpdater.h"

#include <QByteArray>

// The product's update feed as the server (or whoever answers for it) sends it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    QString error;
    const auto item = AppcastUpdater::newestItem(fuzzInput(data, size), &error);
    if (item)
        AppcastUpdater::compareVersions(item->version, QStringLiteral("1.0.2b3"));
    return 0;
}
