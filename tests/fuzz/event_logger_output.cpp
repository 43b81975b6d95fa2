#include "FuzzApplication.h"
#include "events/QXFSEventStreamWatcher.h"

#include <QByteArray>

// The event logger's output, in the pieces a pipe hands over: a 0x01 byte
// in the input marks the end of a read.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    static const QStringList folders{QStringLiteral("/home/ann/Downloads"), QStringLiteral("/srv/share/")};
    static const QStringList trash{QStringLiteral("/home/ann/.local/share/Trash")};
    QByteArray partial;
    for (const QByteArray &read : fuzzInput(data, size).split('\x01'))
        QXFSEventStreamWatcher::pathsInOutput(partial, read, folders, trash);
    return 0;
}
