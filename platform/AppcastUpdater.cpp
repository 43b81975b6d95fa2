#include "AppcastUpdater.h"

#include "AppcastFetcher.h"
#include "BundleInfo.h"
#include "SystemLog.h"

#include <QXmlStreamReader>

namespace {

enum class PartType { Number, Separator, Text };

PartType typeOf(QChar c)
{
    if (c.isDigit())
        return PartType::Number;
    if (c == QLatin1Char('.'))
        return PartType::Separator;
    return PartType::Text;
}

// "1.0b12" becomes "1", ".", "0", "b", "12"; spaces only end a part.
QStringList partsOf(const QString &version)
{
    QStringList parts;
    bool afterSpace = false;
    for (const QChar c : version) {
        if (c.isSpace()) {
            afterSpace = true;
            continue;
        }
        if (!afterSpace && !parts.isEmpty() && typeOf(parts.last().back()) == typeOf(c)
            && typeOf(c) != PartType::Separator)
            parts.last().append(c);
        else
            parts.append(QString(c));
        afterSpace = false;
    }
    return parts;
}

// Compares digit strings of any length without overflowing.
int compareNumbers(QString a, QString b)
{
    while (a.size() > 1 && a.front() == QLatin1Char('0'))
        a.remove(0, 1);
    while (b.size() > 1 && b.front() == QLatin1Char('0'))
        b.remove(0, 1);
    if (a.size() != b.size())
        return a.size() < b.size() ? -1 : 1;
    const int order = a.compare(b);
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

} // namespace

AppcastUpdater::AppcastUpdater(const QUrl &feedURL, const QString &currentVersion, QObject *parent)
    : QObject(parent)
    , _feedURL(feedURL)
    , _currentVersion(currentVersion)
    , _fetcher(new AppcastFetcher)
{
    _fetcher->moveToThread(&_thread);
    connect(&_thread, &QThread::finished, _fetcher, &QObject::deleteLater);
    connect(this, &AppcastUpdater::fetchRequested, _fetcher, &AppcastFetcher::fetch, Qt::QueuedConnection);
    connect(_fetcher, &AppcastFetcher::fetched, this, &AppcastUpdater::fetched, Qt::QueuedConnection);
    _thread.setObjectName(QStringLiteral("update check"));
    _thread.start();
}

AppcastUpdater::~AppcastUpdater()
{
    _thread.quit();
    _thread.wait();
}

AppcastUpdater *AppcastUpdater::updaterForBundle(QObject *parent)
{
    return new AppcastUpdater(BundleInfo::feedURL(), BundleInfo::bundleVersion(), parent);
}

void AppcastUpdater::checkForUpdateInformation()
{
    if (_checking)
        return;
    if (!_feedURL.isValid() || _feedURL.isRelative()) {
        failed(QStringLiteral("no feed address in %1").arg(BundleInfo::infoPath()));
        return;
    }
    _checking = true;
    emit fetchRequested(_feedURL, _timeoutMs);
}

void AppcastUpdater::fetched(const QByteArray &body, const QString &error)
{
    _checking = false;
    if (!error.isEmpty()) {
        failed(error);
        return;
    }
    QString malformed;
    const std::optional<AppcastItem> newest = newestItem(body, &malformed);
    if (!malformed.isEmpty()) {
        failed(malformed);
        return;
    }
    _failing = false;
    if (!_delegate)
        return;
    if (newest && compareVersions(newest->version, _currentVersion) > 0)
        _delegate->updaterDidFindValidUpdate(this, *newest);
    else
        _delegate->updaterDidNotFindUpdate(this);
}

void AppcastUpdater::failed(const QString &reason)
{
    if (_failing)
        return;
    _failing = true;
    SystemLog::log(QStringLiteral("update check failed (%1): %2").arg(_feedURL.toDisplayString(), reason));
}

int AppcastUpdater::compareVersions(const QString &a, const QString &b)
{
    const QStringList partsA = partsOf(a);
    const QStringList partsB = partsOf(b);
    const qsizetype shared = std::min(partsA.size(), partsB.size());
    for (qsizetype i = 0; i < shared; ++i) {
        const PartType typeA = typeOf(partsA[i].front());
        const PartType typeB = typeOf(partsB[i].front());
        if (typeA == typeB) {
            int order = 0;
            if (typeA == PartType::Number)
                order = compareNumbers(partsA[i], partsB[i]);
            else if (typeA == PartType::Text)
                order = partsA[i].compare(partsB[i]);
            if (order != 0)
                return order < 0 ? -1 : 1;
        } else if (typeA == PartType::Text || typeB == PartType::Text) {
            // Text marks a pre-release, older than any number or separator.
            return typeA == PartType::Text ? -1 : 1;
        } else {
            return typeA == PartType::Number ? 1 : -1;
        }
    }
    if (partsA.size() == partsB.size())
        return 0;
    const bool aLonger = partsA.size() > partsB.size();
    const QString &extra = aLonger ? partsA[shared] : partsB[shared];
    const int longerIsNewer = typeOf(extra.front()) == PartType::Text ? -1 : 1;
    return aLonger ? longerIsNewer : -longerIsNewer;
}

std::optional<AppcastItem> AppcastUpdater::newestItem(const QByteArray &feed, QString *error)
{
    QXmlStreamReader xml(feed);
    std::optional<AppcastItem> newest;
    std::optional<AppcastItem> item;
    bool sawRss = false;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isEndElement() && xml.name() == QLatin1String("item") && item) {
            if (!item->version.isEmpty() && (!newest || compareVersions(item->version, newest->version) > 0))
                newest = item;
            item.reset();
            continue;
        }
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("rss")) {
            sawRss = true;
        } else if (xml.name() == QLatin1String("item")) {
            item = AppcastItem();
        } else if (item && xml.name() == QLatin1String("title") && xml.namespaceUri().isEmpty()) {
            item->title = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (item && xml.name() == QLatin1String("enclosure")) {
            // Either the enclosure's attributes or elements of the item carry the versions.
            for (const QXmlStreamAttribute &attribute : xml.attributes()) {
                if (attribute.name() == QLatin1String("version"))
                    item->version = attribute.value().trimmed().toString();
                else if (attribute.name() == QLatin1String("shortVersionString"))
                    item->shortVersionString = attribute.value().trimmed().toString();
            }
        } else if (item && xml.name() == QLatin1String("version") && !xml.namespaceUri().isEmpty()) {
            item->version = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        } else if (item && xml.name() == QLatin1String("shortVersionString")) {
            item->shortVersionString = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        }
    }
    QString problem;
    if (xml.hasError())
        problem = QStringLiteral("the feed is not well-formed XML: %1 (line %2)")
                      .arg(xml.errorString())
                      .arg(xml.lineNumber());
    else if (!sawRss)
        problem = QStringLiteral("the feed is not an RSS document");
    if (error)
        *error = problem;
    return problem.isEmpty() ? newest : std::nullopt;
}
