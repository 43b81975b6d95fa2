#include "SystemVersion.h"

#include "PropertyList.h"

#include <QVariantMap>

namespace {
QString versionPath = QStringLiteral("/System/Library/CoreServices/SystemVersion.plist");
}

QString SystemVersion::path()
{
    return versionPath;
}
void SystemVersion::setPath(const QString &p)
{
    versionPath = p;
}

QString SystemVersion::productVersion()
{
    const QVariant plist = PropertyList::readFile(versionPath);
    return plist.toMap().value(QStringLiteral("ProductVersion")).toString();
}
