#pragma once

#include <QString>
#include <QStringList>

// A guess at a file's uniform type identifier and the types it conforms to,
// from its name and first bytes, for saved-search queries on content types.
class ContentType
{
public:
    // The most specific type first, then the ones it conforms to, ending in
    // "public.item"; a folder is "public.folder".
    static QStringList typeTreeForFile(const QString &path);
    // Whether the file holds plain text that a query may search.
    static bool isPlainText(const QStringList &typeTree);
};
