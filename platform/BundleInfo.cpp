#include "BundleInfo.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace {
QString identifier = QStringLiteral(KORVANE_AGENT_ID);
}

QString BundleInfo::bundleIdentifier() { return identifier; }
void BundleInfo::setBundleIdentifier(const QString &id) { identifier = id; }
QString BundleInfo::companionIdentifier() { return QStringLiteral(KORVANE_COMPANION_ID); }
QString BundleInfo::shortVersionString() { return QStringLiteral(KORVANE_VERSION); }

QString BundleInfo::executableName()
{
    const QString name = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    return name.isEmpty() ? QStringLiteral("KorvaneVarden") : name;
}
