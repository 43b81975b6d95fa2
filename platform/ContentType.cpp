#include "ContentType.h"

#include <QFileInfo>
#include <QHash>
#include <QMimeDatabase>

namespace {

// The media types that have a well-known identifier; others are named after
// their media type.
const QHash<QString, QStringList> &knownTypes()
{
    static const QHash<QString, QStringList> types{
        {QStringLiteral("text/plain"), {QStringLiteral("public.plain-text"), QStringLiteral("public.text")}},
        {QStringLiteral("text/html"), {QStringLiteral("public.html"), QStringLiteral("public.text")}},
        {QStringLiteral("application/xml"), {QStringLiteral("public.xml"), QStringLiteral("public.text")}},
        {QStringLiteral("text/x-csrc"), {QStringLiteral("public.c-source"), QStringLiteral("public.source-code"), QStringLiteral("public.plain-text"), QStringLiteral("public.text")}},
        {QStringLiteral("text/x-c++src"), {QStringLiteral("public.c-plus-plus-source"), QStringLiteral("public.source-code"), QStringLiteral("public.plain-text"), QStringLiteral("public.text")}},
        {QStringLiteral("application/x-shellscript"), {QStringLiteral("public.shell-script"), QStringLiteral("public.script"), QStringLiteral("public.plain-text"), QStringLiteral("public.text")}},
        {QStringLiteral("application/json"), {QStringLiteral("public.json"), QStringLiteral("public.plain-text"), QStringLiteral("public.text")}},
        {QStringLiteral("application/pdf"), {QStringLiteral("com.adobe.pdf"), QStringLiteral("public.composite-content")}},
        {QStringLiteral("image/jpeg"), {QStringLiteral("public.jpeg"), QStringLiteral("public.image")}},
        {QStringLiteral("image/png"), {QStringLiteral("public.png"), QStringLiteral("public.image")}},
        {QStringLiteral("image/gif"), {QStringLiteral("com.compuserve.gif"), QStringLiteral("public.image")}},
        {QStringLiteral("image/tiff"), {QStringLiteral("public.tiff"), QStringLiteral("public.image")}},
        {QStringLiteral("audio/mpeg"), {QStringLiteral("public.mp3"), QStringLiteral("public.audio"), QStringLiteral("public.audiovisual-content")}},
        {QStringLiteral("video/mp4"), {QStringLiteral("public.mpeg-4"), QStringLiteral("public.movie"), QStringLiteral("public.audiovisual-content")}},
        {QStringLiteral("application/zip"), {QStringLiteral("public.zip-archive"), QStringLiteral("public.archive")}},
        {QStringLiteral("application/gzip"), {QStringLiteral("org.gnu.gnu-zip-archive"), QStringLiteral("public.archive")}},
        {QStringLiteral("application/x-executable"), {QStringLiteral("public.unix-executable"), QStringLiteral("public.executable")}},
        {QStringLiteral("application/x-msdownload"), {QStringLiteral("com.microsoft.windows-executable"), QStringLiteral("public.executable")}},
        {QStringLiteral("application/x-ms-dos-executable"), {QStringLiteral("com.microsoft.windows-executable"), QStringLiteral("public.executable")}},
    };
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
    if (tree.contains(QStringLiteral("public.text")) || tree.contains(QStringLiteral("public.image"))
        || tree.contains(QStringLiteral("public.audiovisual-content")) || tree.contains(QStringLiteral("com.adobe.pdf")))
        tree << QStringLiteral("public.content");
    tree << QStringLiteral("public.data") << QStringLiteral("public.item");
    return tree;
}

bool ContentType::isPlainText(const QStringList &typeTree)
{
    return typeTree.contains(QStringLiteral("public.plain-text"));
}
