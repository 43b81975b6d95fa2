#include "QXUtils.h"

#include "QXUtilsDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"
#include "platform/UserFolders.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QThreadPool>

namespace {

QVariantMap exclusionRecord(const char *commentKey, const QString &pattern, bool regEx)
{
    return {
        {QStringLiteral("excludeComments"), Localization::text(commentKey)},
        {QStringLiteral("excludePattern"), pattern},
        {QStringLiteral("excludeEnabled"), false},
        {QStringLiteral("excludeRegEx"), regEx},
    };
}

QVariantMap sourceRecord(const QString &path)
{
    return {{QStringLiteral("name"), path}};
}

} // namespace

QList<QXUtils::EngineCandidate> QXUtils::defaultEngineCandidates()
{
    return {
        {QStringLiteral("/usr/local/korvane"), QStringLiteral("/usr/local/korvane/share/clamav/freshclam.log")},
        {QStringLiteral("/usr/local"), QStringLiteral("/usr/local/share/clamav/freshclam.log")},
        {QStringLiteral("/usr"), QStringLiteral("/private/var/log/freshclam.log")},
        {QStringLiteral("/opt/local"), QStringLiteral("/opt/local/share/clamav/freshclam.log")},
        {QStringLiteral("/sw"), QStringLiteral("/sw/var/db/clamav/freshclam.log")},
    };
}

QVariantMap QXUtils::builtInDefaults()
{
    const QDateTime schedule(QDate(2001, 3, 24), QTime(15, 45), Qt::UTC);
    return {
        {QStringLiteral("sourceContents"),
         QVariantList{sourceRecord(QStringLiteral("~")), sourceRecord(QStringLiteral("~/Documents")),
                      sourceRecord(QStringLiteral("~/Desktop"))}},
        {QStringLiteral("AlertOnDetect"), true},
        {QStringLiteral("ExcludePatterns"),
         QVariantList{exclusionRecord("EXCLUDE_JPG", QStringLiteral("jpg$"), true),
                      exclusionRecord("EXCLUDE_FOO", QStringLiteral("^foo"), true),
                      exclusionRecord("EXCLUDE_BAR", QStringLiteral("bar"), false)}},
        {QStringLiteral("LogScans"), true},
        {QStringLiteral("LogUpdates"), true},
        {QStringLiteral("QuarantineInfected"), false},
        {QStringLiteral("ScanEmail"), true},
        {QStringLiteral("UpdateDefsOnLaunch"), false},
        {QStringLiteral("AlertOnCompletion"), true},
        {QStringLiteral("ScheduleUpdateTime"), schedule},
        {QStringLiteral("ScheduleScanTime"), schedule},
    };
}

QXUtils::QXUtils(QXUtilsDelegate *delegate, QObject *parent)
    : QXUtils(delegate, defaultEngineCandidates(), parent)
{
}

QXUtils::QXUtils(QXUtilsDelegate *delegate, const QList<EngineCandidate> &engineCandidates, QObject *parent)
    : QObject(parent)
    , _delegate(delegate)
{
    _useClamd = _delegate ? _delegate->useClamd() : true;
    registerDefaultsAndDomains();

    _enginePath.clear();
    _updateLogPath.clear();
    _scanning = false;
    _updating = false;
    _theOperationQueue = new QThreadPool(this);
    _exclusionStringsForRootVolScan = {QStringLiteral("/Volumes"), QStringLiteral("/dev"), QStringLiteral("/net")};
    _launchAgentsDir = UserFolders::launchAgents();
    _emailDirPaths = UserFolders::mailStores();

    const QString logs = UserFolders::logs();
    if (!QFileInfo(logs).isDir())
        QDir().mkpath(logs);

    makeEngineCandidateLists(engineCandidates);
}

QXUtils::~QXUtils() = default;

void QXUtils::registerDefaultsAndDomains()
{
    const QVariantMap defaults = builtInDefaults();
    _preferences = UserDefaultsController::sharedUserDefaultsController();
    _preferences->defaults()->registerDefaults(defaults);
    _preferences->setInitialValues({{QStringLiteral("sourceContents"), defaults.value(QStringLiteral("sourceContents"))}});
    if (!runningAsCompanion())
        _preferences->defaults()->addSuiteNamed(BundleInfo::companionIdentifier());
    _preferences->setAppliesImmediately(false);
}

void QXUtils::makeEngineCandidateLists(const QList<EngineCandidate> &fixed)
{
    _enginePathsArray.clear();
    _updateLogPathsArray.clear();
    for (const EngineCandidate &candidate : fixed) {
        _enginePathsArray.append(candidate.first);
        _updateLogPathsArray.append(candidate.second);
    }

    if (readPreferenceForKey(QStringLiteral("isAppStore")).isValid()) {
        _preferences->setValue(QVariant(), QStringLiteral("isAppStore"));
    } else {
        const QVariant custom = readPreferenceForKey(QStringLiteral("PathToClamav"));
        if (custom.isValid()) {
            _enginePathsArray.append(custom.toString());
            const QVariant log = readPreferenceForKey(QStringLiteral("PathToUpdateLog"));
            _updateLogPathsArray.append(log.isValid() ? log.toString() : QStringLiteral("/tmp/freshclam.log"));
        }
    }

    // The companion keeps its own scan log beside ours.
    _pathToScanLog = UserFolders::logs()
        + (_useClamd ? QStringLiteral("/KorvaneVarden-scan.log") : QStringLiteral("/korvane-scan.log"));

    _enginePathsEnumerator = 0;
    _updateLogPathsEnumerator = 0;
    _enginePath = _enginePathsArray.value(0);
    _updateLogPath = _updateLogPathsArray.value(0);
}

bool QXUtils::runningAsCompanion()
{
    return BundleInfo::bundleIdentifier() == BundleInfo::companionIdentifier();
}

QVariant QXUtils::readPreferenceForKey(const QString &key) const
{
    return _preferences->value(key);
}

void QXUtils::setPreference(const QVariant &value, const QString &key)
{
    if (runningAsCompanion())
        _preferences->setValue(value, key);
}

void QXUtils::deletePreferenceForKey(const QString &key)
{
    if (runningAsCompanion())
        _preferences->setValue(QVariant(), key);
}

void QXUtils::syncPrefs()
{
    _preferences->setAppliesImmediately(true);
    _preferences->setAppliesImmediately(false);
}

void QXUtils::revertPrefs()
{
    _preferences->revert();
}

void QXUtils::setup()
{
    _preferences->setValue(_enginePath, QStringLiteral("PathToClamav"));
    _preferences->setValue(_updateLogPath, QStringLiteral("PathToUpdateLog"));
    syncPrefs();
    // The engine workers are made here once they exist.
}

void QXUtils::checkEngine()
{
    // The engine check arrives with the engine workers.
}

void QXUtils::updateDefs()
{
    // The definitions updater arrives with the engine workers.
}

void QXUtils::scanFiles(const QStringList &paths)
{
    Q_UNUSED(paths);
    _suppressSummary = _preferences->value(QStringLiteral("SuppressSummary")).toBool();
    const QVariant args = readPreferenceForKey(QStringLiteral("AdditionalCmdLineArgs"));
    _hasAdditionalCmdArgs = args.isValid();
    _additionalCmdArgs = args.toString();
    _logScans = readPreferenceForKey(QStringLiteral("LogScans")).toBool();
    // The scanner arrives with the engine workers.
}

void QXUtils::determineQuarantineSettings()
{
    // Quarantine settings arrive with the scan policy.
}

void QXUtils::determineWhatToExcludeFromThisScan()
{
    // Exclusions arrive with the scan policy.
}

void QXUtils::postToNotificationCenterWithTitle(const QString &title, const QString &message)
{
    Q_UNUSED(title);
    Q_UNUSED(message);
    // User notifications arrive with the infected-items list.
}

bool QXUtils::wantScanStatusUpdates() const
{
    return _delegate && _delegate->wantScanStatusUpdates();
}

bool QXUtils::wantUpdatePercentages() const
{
    return _delegate && _delegate->wantUpdatePercentages();
}
