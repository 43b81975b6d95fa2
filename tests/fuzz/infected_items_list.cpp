#include "FuzzApplication.h"
#include "ui/InfectedItemsStore.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// The infected-items list file as a crash, a full disk or another hand left it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    static QTemporaryDir folder;
    static QXTInfectedViewArrayController list;
    static InfectedItemsStore store(&list, folder.filePath(QStringLiteral("infected-items.json")));

    QFile file(store.path());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 0;
    file.write(reinterpret_cast<const char *>(data), qint64(size));
    file.close();
    store.read();
    // A malformed file is put aside; those must not pile up over a run.
    QDir dir(folder.path());
    for (const QString &aside : dir.entryList({QStringLiteral("*.malformed*")}, QDir::Files))
        dir.remove(aside);
    return 0;
}
