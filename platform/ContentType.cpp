#include "ContentType.h"

#include <QFileInfo>
#include <QHash>
#include <QMimeDatabase>

namespace {

// The media types that have a well-known identifier; others are named after
// their media type.
const QHash<QString, QStringList> &knownTypes()
{
    static const QHash<QString, QStringList> types = [] {
        // Each media type with its identifier and what that conforms to.
        const char *table[][2] = {
            {"text/plain", "public.plain-text public.text"},
            {"text/html", "public.html public.text"},
            {"application/xml", "public.xml public.text"},
            {"text/x-csrc", "public.c-source public.source-code public.plain-text public.text"},
            {"text/x-c++src", "public.c-plus-plus-source public.source-code public.plain-text public.text"},
            {"application/x-shellscript", "public.shell-script public.script public.plain-text public.text"},
            {"application/json", "public.json public.plain-text public.text"},
            {"application/pdf", "com.adobe.pdf public.composite-content"},
            {"image/jpeg", "public.jpeg public.image"},
            {"image/png", "public.png public.image"},
            {"image/gif", "com.compuserve.gif public.image"},
            {"image/tiff", "public.tiff public.image"},
            {"audio/mpeg", "public.mp3 public.audio public.audiovisual-content"},
            {"video/mp4", "public.mpeg-4 public.movie public.audiovisual-content"},
            {"application/zip", "public.zip-archive public.archive"},
            {"application/gzip", "org.gnu.gnu-zip-archive public.archive"},
            {"application/x-executable", "public.unix-executable public.executable"},
            {"application/x-msdownload", "com.microsoft.windows-executable public.executable"},
            {"application/x-ms-dos-executable", "com.microsoft.windows-executable public.executable"},
        };
        QHash<QString, QStringList> map;
        for (const auto &[media, identifiers] : table)
            map.insert(QString::fromLatin1(media), QString::fromLatin1(identifiers).split(QLatin1Char(' ')));
        return map;
    }();
    return types;
}

} // namespace

QStringList ContentType::typeTreeForFile(const QString &path)
{
    const QFileInfo info(path);
    if (info.isDir() && !info.isSymLink())
        return {QStringLiteral("public.folder"), QStringLiteral("public.directory"), QStringLiteral("public.item")};

    static const QMimeDatabase database;
    const QMimeType mime = database.mimeTypeForFile(info);
    QStringList tree;
    // The type itself, then what it inherits from, each mapped once.
    QStringList names{mime.name()};
    names << mime.allAncestors();
    for (const QString &name : names) {
        const QStringList known = knownTypes().value(name);
        if (known.isEmpty() && name == mime.name() && name != QLatin1String("application/octet-stream"))
            tree << QStringLiteral("dyn.mime.") + name;
        for (const QString &type : known) {
            if (!tree.contains(type))
                tree << type;
        }
    }
    if (mime.inherits(QStringLiteral("text/plain")) && !tree.contains(QStringLiteral("public.plain-text")))
        tree << QStringLiteral("public.plain-text") << QStringLiteral("public.text");
    for (const char *content : {"public.text", "public.image", "public.audiovisual-content", "com.adobe.pdf"}) {
        if (tree.contains(QLatin1String(content))) {
            tree << QStringLiteral("public.content");
            break;
        }
    }
    tree << QStringLiteral("public.data") << QStringLiteral("public.item");
    return tree;
}

bool ContentType::isPlainText(const QStringList &typeTree)
{
    return typeTree.contains(QStringLiteral("public.plain-text"));
}
