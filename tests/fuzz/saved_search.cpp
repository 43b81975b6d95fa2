#include "FuzzApplication.h"
#include "Tarnlib/Tarnlib/QXSavedSearch.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// A saved-search file dropped into a watched folder: read from disk as the
// scanner reads it, then expanded within a few entries.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    static QTemporaryDir folder;
    static const QString path = folder.filePath(QStringLiteral("input.savedSearch"));
    // The home folder scopes name is this one, with a couple of entries.
    static const bool prepared = [] {
        qputenv("HOME", folder.path().toLocal8Bit());
        QDir().mkpath(folder.filePath(QStringLiteral("Documents")));
        QFile text(folder.filePath(QStringLiteral("Documents/notes.txt")));
        return text.open(QIODevice::WriteOnly) && text.write("EICAR test notes\n") > 0;
    }();
    (void)prepared;

    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 0;
    file.write(reinterpret_cast<const char *>(data), qint64(size));
    file.close();

    QXSavedSearch search(path);
    search.rawQuery();
    search.searchScopes();
    search.expand(16, QDateTime::fromSecsSinceEpoch(1700000000));
    return 0;
}
