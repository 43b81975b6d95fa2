#include "NamedImage.h"

#include <QFile>

QIcon NamedImage::imageNamed(const QString &name)
{
    const QString path = QStringLiteral(":/images/%1.svg").arg(name);
    if (!QFile::exists(path))
        return {};
    return QIcon(path);
}
