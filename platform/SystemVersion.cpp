#include "SystemVersion.h"

#include "PropertyList.h"

#include <QVariantMap>

namespace {
const QString versionPath = QStringLiteral("/System/Library/CoreServices/SystemVersion.plist");
}

QString SystemVersion::productVersion()
{
    const QVariant plist = PropertyList::readFile(versionPath);
    return plist.toMap().value(QStringLiteral("ProductVersion")).toString();
}
