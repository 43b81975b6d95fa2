#include "FuzzApplication.h"
#include "Tarnlib/Tarnlib/ClamdConfiguration.h"

#include <QString>

// A clamd.conf anyone with a hand in the engine's prefix may have written.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    const ClamdConfiguration configuration = ClamdConfiguration::fromText(QString::fromUtf8(fuzzInput(data, size)));
    configuration.daemonIsRemote();
    configuration.tcpPort();
    configuration.remoteDaemonName();
    configuration.value(QStringLiteral("LocalSocket"));
    return 0;
}
