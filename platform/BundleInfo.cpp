#include "BundleInfo.h"

#include "PropertyList.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QVariantMap>

namespace {
QString identifier = QStringLiteral(KORVANE_AGENT_ID);
QString info;

QString infoValue(const QString &key)
{
    return PropertyList::readFile(BundleInfo::infoPath()).toMap().value(key).toString();
}
} // namespace

QString BundleInfo::bundleIdentifier()
{
    return identifier;
}
void BundleInfo::setBundleIdentifier(const QString &id)
{
    identifier = id;
}
QString BundleInfo::companionIdentifier()
{
    return QStringLiteral(KORVANE_COMPANION_ID);
}
QString BundleInfo::shortVersionString()
{
    return QStringLiteral(KORVANE_VERSION);
}

QString BundleInfo::executableName()
{
    const QString name = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    return name.isEmpty() ? QStringLiteral("KorvaneVarden") : name;
}

QString BundleInfo::helperFilePath(const QString &name, const std::function<bool(const QFileInfo &)> &usable)
{
    const QString own = QCoreApplication::applicationDirPath();
    const QString beside = own + QLatin1Char('/') + name;
    const QString installed = QDir::cleanPath(own + QStringLiteral("/../" KORVANE_HELPER_DIR "/") + name);
    return usable(QFileInfo(beside)) || !usable(QFileInfo(installed)) ? beside : installed;
}

QString BundleInfo::infoPath()
{
    if (!info.isEmpty())
        return info;
    return helperFilePath(QStringLiteral("Info.plist"), [](const QFileInfo &file) { return file.exists(); });
}

void BundleInfo::setInfoPath(const QString &path)
{
    info = path;
}

QString BundleInfo::bundleVersion()
{
    const QString version = infoValue(QStringLiteral("CFBundleVersion"));
    return version.isEmpty() ? shortVersionString() : version;
}

QUrl BundleInfo::feedURL()
{
    return QUrl(infoValue(QStringLiteral("SUFeedURL")), QUrl::StrictMode);
}
