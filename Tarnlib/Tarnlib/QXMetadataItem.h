#pragma once

#include <QFileInfo>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QVariant>

// The metadata attributes of one file that queries ask about, read from the
// file system when first asked and kept for the item's life.
class QXMetadataItem
{
public:
    explicit QXMetadataItem(const QString &path);

    // A QString, a QStringList, a double or a QDateTime; invalid when the
    // file has no such attribute.
    QVariant attribute(const QString &name);
    // The attributes that "*" compares with.
    static QStringList textAttributes();

    // Text content is searched in the first part of a file only.
    static constexpr qint64 textContentLimit = 1024 * 1024;

private:
    QVariant read(const QString &name);
    QStringList typeTree();
    QVariant textContent();

    QString _path;
    QFileInfo _info;
    QHash<QString, QVariant> _cache;
    QStringList _typeTree;
};
