#include "QXMetadataItem.h"

#include "platform/ContentType.h"
#include "platform/RegularFile.h"

#include <QDateTime>

QXMetadataItem::QXMetadataItem(const QString &path)
    : _path(path)
    , _info(path)
{}

QStringList QXMetadataItem::textAttributes()
{
    return {QStringLiteral("kMDItemDisplayName"), QStringLiteral("kMDItemFSName"), QStringLiteral("kMDItemContentType"),
            QStringLiteral("kMDItemTextContent")};
}

QVariant QXMetadataItem::attribute(const QString &name)
{
    const auto cached = _cache.constFind(name);
    if (cached != _cache.constEnd())
        return *cached;
    const QVariant value = read(name);
    _cache.insert(name, value);
    return value;
}

QStringList QXMetadataItem::typeTree()
{
    if (_typeTree.isEmpty())
        _typeTree = ContentType::typeTreeForFile(_path);
    return _typeTree;
}

QVariant QXMetadataItem::read(const QString &name)
{
    if (!_info.exists() && !_info.isSymLink())
        return {};
    const auto date = [](const QDateTime &time) { return time.isValid() ? QVariant(time) : QVariant(); };
    if (name == QLatin1String("kMDItemDisplayName") || name == QLatin1String("kMDItemFSName"))
        return _info.fileName();
    if (name == QLatin1String("kMDItemPath"))
        return _path;
    if (name == QLatin1String("kMDItemContentType"))
        return typeTree().constFirst();
    if (name == QLatin1String("kMDItemContentTypeTree"))
        return typeTree();
    if (name == QLatin1String("kMDItemFSSize") || name == QLatin1String("kMDItemLogicalSize"))
        return _info.isDir() ? QVariant() : QVariant(static_cast<double>(_info.size()));
    if (name == QLatin1String("kMDItemFSContentChangeDate") || name == QLatin1String("kMDItemContentModificationDate"))
        return date(_info.lastModified());
    if (name == QLatin1String("kMDItemFSCreationDate") || name == QLatin1String("kMDItemContentCreationDate")) {
        // Not every file system keeps a birth time.
        const QDateTime born = _info.birthTime();
        return date(born.isValid() ? born : _info.lastModified());
    }
    if (name == QLatin1String("kMDItemLastUsedDate"))
        return date(_info.lastRead());
    if (name == QLatin1String("kMDItemTextContent"))
        return textContent();
    return {};
}

QVariant QXMetadataItem::textContent()
{
    if (!ContentType::isPlainText(typeTree()))
        return {};
    // The type was guessed a moment ago; the file may have been swapped for a FIFO since.
    const std::optional<QByteArray> start = RegularFile::readStart(_path, textContentLimit);
    if (!start)
        return {};
    return QString::fromUtf8(*start);
}
