#include "QXUtils.h"

#include "QXEngineChecker.h"
#include "QXFileCounter.h"
#include "QXSavedSearch.h"
#include "QXScanner.h"
#include "QXUpdater.h"
#include "QXUtilsDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"
#include "platform/SystemLog.h"
#include "platform/UserNotificationCenter.h"
#include "platform/Trash.h"
#include "platform/UserFolders.h"
#include "platform/Workspace.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QMutexLocker>
#include <QThreadPool>
#include <QTimer>

#include <algorithm>

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

enum class Kind { Any, Boolean, Number, String, StringOrRecord, Array, Date };

Kind kindOfKey(const QString &key)
{
    static const QHash<QString, Kind> kinds{
        {QStringLiteral("sourceContents"), Kind::Array},
        {QStringLiteral("AlertOnDetect"), Kind::Boolean},
        {QStringLiteral("AlertOnCompletion"), Kind::Boolean},
        {QStringLiteral("ScheduleUpdateTime"), Kind::Date},
        {QStringLiteral("ScheduleScanTime"), Kind::Date},
        {QStringLiteral("ExcludePatterns"), Kind::Array},
        {QStringLiteral("ScanEmail"), Kind::Boolean},
        {QStringLiteral("QuarantineInfected"), Kind::Boolean},
        {QStringLiteral("QuarantineFolder"), Kind::StringOrRecord},
        {QStringLiteral("LogScans"), Kind::Boolean},
        {QStringLiteral("SuppressSummary"), Kind::Boolean},
        {QStringLiteral("AdditionalCmdLineArgs"), Kind::String},
        {QStringLiteral("LogUpdates"), Kind::Boolean},
        {QStringLiteral("UpdateDefsOnLaunch"), Kind::Boolean},
        {QStringLiteral("PathToClamav"), Kind::String},
        {QStringLiteral("PathToUpdateLog"), Kind::String},
        {QStringLiteral("NeedsExit1FreshclamFlag"), Kind::Boolean},
        {QStringLiteral("VardenFolderArray"), Kind::Array},
        {QStringLiteral("rotateScanlogWhenSizeReaches"), Kind::Number},
        {QStringLiteral("SUEnableAutomaticChecks"), Kind::Boolean},
    };
    return kinds.value(key, Kind::Any);
}

bool hasKind(const QVariant &value, Kind kind)
{
    const int type = value.typeId();
    switch (kind) {
    case Kind::Any:
        return true;
    case Kind::Boolean:
        return type == QMetaType::Bool;
    case Kind::Number:
        return type == QMetaType::Int || type == QMetaType::UInt || type == QMetaType::LongLong
               || type == QMetaType::ULongLong || type == QMetaType::Double;
    case Kind::String:
        return type == QMetaType::QString;
    case Kind::StringOrRecord:
        return type == QMetaType::QString
               || (type == QMetaType::QVariantMap
                   && value.toMap().value(QStringLiteral("path")).typeId() == QMetaType::QString);
    case Kind::Array:
        return type == QMetaType::QVariantList || type == QMetaType::QStringList;
    case Kind::Date:
        return type == QMetaType::QDateTime;
    }
    return false;
}

// A word read as a boolean: YES when, after leading blanks, it starts with
// "Y", "y", "T" or "t", or, after a sign and zeros, with a digit 1 to 9. So a
// hand-written "NO" is off and "YES" is on, as the settings' own readers had it.
bool wordAsBoolean(const QString &word)
{
    qsizetype i = 0;
    while (i < word.size() && word.at(i).isSpace())
        ++i;
    if (i < word.size() && QStringLiteral("YyTt").contains(word.at(i)))
        return true;
    if (i < word.size() && (word.at(i) == QLatin1Char('+') || word.at(i) == QLatin1Char('-')))
        ++i;
    while (i < word.size() && word.at(i) == QLatin1Char('0'))
        ++i;
    return i < word.size() && word.at(i) >= QLatin1Char('1') && word.at(i) <= QLatin1Char('9');
}

// A value stored with another type than its key's, read as it comes: a word
// or a number where a boolean belongs reads as one; anything else that a
// reader of the key's type cannot take counts as absent.
QVariant readAsKind(const QVariant &value, Kind kind)
{
    if (kind == Kind::Boolean && value.typeId() == QMetaType::QString)
        return wordAsBoolean(value.toString());
    if (kind == Kind::Boolean && hasKind(value, Kind::Number))
        return value.toDouble() != 0;
    return QVariant();
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
        {QStringLiteral("ExcludePatterns"), QVariantList{exclusionRecord("EXCLUDE_JPG", QStringLiteral("jpg$"), true),
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
{}

QXUtils::QXUtils(QXUtilsDelegate *delegate, const QList<EngineCandidate> &engineCandidates, QObject *parent)
    : QObject(parent)
    , _delegate(delegate)
    , _savedSearchEntryLimit(QXSavedSearch::defaultEntryLimit)
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

    _remoteServiceTimer.setSingleShot(true);
    _remoteServiceTimer.setInterval(defaultRemoteServiceRetryMs);
    connect(&_remoteServiceTimer, &QTimer::timeout, this, &QXUtils::askRemoteService);
}

QXUtils::~QXUtils()
{
    // A count may be waiting for the main thread to take its total.
    _delegate = nullptr;
    for (const std::weak_ptr<QXFileCounter> &weak : std::as_const(_fileCountersInFlight)) {
        if (const std::shared_ptr<QXFileCounter> counter = weak.lock())
            counter->cancel();
    }
    _theOperationQueue->clear();
    while (!_theOperationQueue->waitForDone(10))
        QCoreApplication::sendPostedEvents(this);

    // A worker that ends its thread delivers what is on its way to the main
    // thread, and no report may reach a delegate that is going away.
    for (QXWorkerThread *worker : std::initializer_list<QXWorkerThread *>{_theScanner, _theUpdater, _theChecker}) {
        if (worker)
            worker->stopReporting();
    }
    delete _theScanner;
    delete _theUpdater;
    delete _theChecker;
}

void QXUtils::registerDefaultsAndDomains()
{
    const QVariantMap defaults = builtInDefaults();
    _preferences = UserDefaultsController::sharedUserDefaultsController();
    _preferences->defaults()->registerDefaults(defaults);
    _preferences->setInitialValues(
        {{QStringLiteral("sourceContents"), defaults.value(QStringLiteral("sourceContents"))}});
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
        const QVariant custom = customEngineSetting(QStringLiteral("PathToClamav"));
        if (custom.isValid()) {
            _enginePathsArray.append(custom.toString());
            const QVariant log = customEngineSetting(QStringLiteral("PathToUpdateLog"));
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

QVariant QXUtils::customEngineSetting(const QString &key) const
{
    if (runningAsCompanion())
        return readPreferenceForKey(key);
    // setup records each launch's first pair in the agent's own domain, which
    // is read first: the user's choice, made in the companion, must win.
    const QVariant value =
        _preferences->defaults()->persistentDomainForName(BundleInfo::companionIdentifier()).value(key);
    return value.typeId() == QMetaType::QString ? value : QVariant();
}

bool QXUtils::runningAsCompanion()
{
    return BundleInfo::bundleIdentifier() == BundleInfo::companionIdentifier();
}

QVariant QXUtils::readPreferenceForKey(const QString &key) const
{
    const QVariant value = _preferences->value(key);
    const Kind kind = kindOfKey(key);
    if (!value.isValid() || hasKind(value, kind))
        return value;
    const QVariant read = readAsKind(value, kind);
    if (!_keysOfWrongType.contains(key)) {
        _keysOfWrongType.insert(key);
        SystemLog::log(QStringLiteral("preference %1 has a value of type %2; it reads as %3")
                           .arg(key, QString::fromLatin1(value.typeName()),
                                read.isValid() ? read.toString() : QStringLiteral("absent")));
    }
    return read.isValid() ? read : _preferences->defaults()->registrationDomain().value(key);
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

    // Workers ask these on their own threads, so they are copied here and
    // before each run rather than asked of the delegate there.
    _wantScanStatusUpdates = _delegate && _delegate->wantScanStatusUpdates();
    _wantUpdatePercentages = _delegate && _delegate->wantUpdatePercentages();

    _theChecker = new QXEngineChecker(this);
    _theChecker->start();
    _theUpdater = new QXUpdater(this);
    _theUpdater->start();
    // The scanner asks for progress and the daemon setting once, now.
    _theScanner = new QXScanner(this);
    _theScanner->start();
}

void QXUtils::checkEngine()
{
    if (!_theChecker)
        return;
    QXEngineChecker *checker = _theChecker;
    checker->perform([checker] { checker->runCheck(); });
}

void QXUtils::updateDefs()
{
    if (!_theUpdater)
        return;
    _logUpdates = readPreferenceForKey(QStringLiteral("LogUpdates")).toBool();
    _wantUpdatePercentages = _delegate && _delegate->wantUpdatePercentages();
    QXUpdater *updater = _theUpdater;
    updater->perform([updater] { updater->runUpdate(); });
}

void QXUtils::scanFiles(const QStringList &paths, bool logged)
{
    _suppressSummary = readPreferenceForKey(QStringLiteral("SuppressSummary")).toBool();
    determineAdditionalArguments();
    _logScans = logged && readPreferenceForKey(QStringLiteral("LogScans")).toBool();
    if (!_theScanner)
        return;
    _batchInFlight = paths;
    _unscannedOfBatch.clear();
    _rescanningBatch = false;
    _retryingWithoutCmdArgs = false;
    _infectedPathsOfBatch.clear();
    QXScanner *scanner = _theScanner;
    const QStringList batch = paths;
    scanner->perform([scanner, batch] { scanner->runScanOnFiles(batch); });
}

void QXUtils::determineAdditionalArguments()
{
    const QVariant setting = readPreferenceForKey(QStringLiteral("AdditionalCmdLineArgs"));
    _argumentConflicts.clear();
    _hasAdditionalCmdArgs = setting.isValid();
    _additionalCmdArgs = setting.toString();
    if (!_hasAdditionalCmdArgs) {
        _refusedCmdArgs.clear();
        return;
    }
    // The engine would move or remove files without the record that lets
    // the user put them back; the list's own actions keep one.
    QStringList kept;
    QStringList dropped;
    for (const QString &argument : _additionalCmdArgs.split(QLatin1Char(' '), Qt::KeepEmptyParts)) {
        const bool movesFiles = argument == QLatin1String("--remove") || argument.startsWith(QLatin1String("--remove="))
                                || argument.startsWith(QLatin1String("--move"))
                                || argument.startsWith(QLatin1String("--copy"));
        (movesFiles ? dropped : kept) << argument;
    }
    if (!dropped.isEmpty()) {
        _argumentConflicts << QStringLiteral("the scanner arguments “%1” would move or delete files: they are not "
                                             "passed")
                                  .arg(dropped.join(QLatin1Char(' ')));
        _additionalCmdArgs = kept.join(QLatin1Char(' '));
        _hasAdditionalCmdArgs = !kept.isEmpty();
    }
    if (!_hasAdditionalCmdArgs || _additionalCmdArgs != _refusedCmdArgs) {
        _refusedCmdArgs.clear();
        return;
    }
    _argumentConflicts << refusedArgumentsConflict();
    _hasAdditionalCmdArgs = false;
    _additionalCmdArgs.clear();
}

QString QXUtils::refusedArgumentsConflict() const
{
    return QStringLiteral("the engine refused the scanner arguments “%1”: files are scanned without them")
        .arg(_refusedCmdArgs);
}

void QXUtils::countFiles(const QStringList &paths)
{
    auto counter = std::make_shared<QXFileCounter>(this, this);
    counter->setThePathsToScan(paths);
    _theFileCounter = counter;
    _fileCountersInFlight.removeIf([](const std::weak_ptr<QXFileCounter> &weak) { return weak.expired(); });
    _fileCountersInFlight << counter;
    _theOperationQueue->start([counter] { counter->start(); });
}

void QXUtils::fileCounterReturned(qint64 count)
{
    if (_delegate)
        _delegate->fileCounterReturned(count);
    _theFileCounter.reset();
}

void QXUtils::pauseResume()
{
    if (_theScanner)
        _paused = _theScanner->pause();
}

void QXUtils::stop()
{
    if (_scanning) {
        _batchInFlight.clear();
        if (_theScanner)
            _theScanner->stop();
        _theOperationQueue->clear();
        for (const std::weak_ptr<QXFileCounter> &weak : std::as_const(_fileCountersInFlight)) {
            if (const std::shared_ptr<QXFileCounter> counter = weak.lock())
                counter->cancel();
        }
        _paused = false;
        // Nothing runs while the batch waits for the scanning service.
        if (_batchWaitsForRemoteService) {
            _batchWaitsForRemoteService = false;
            finishBatch(_statusOfLostScan);
        }
    } else if (_updating) {
        if (_theUpdater)
            _theUpdater->stop();
    }
}

namespace {

QString quarantineFolderSetting(const QVariant &setting)
{
    QVariant folder = setting;
    if (folder.typeId() == QMetaType::QVariantMap)
        folder = folder.toMap().value(QStringLiteral("path"));
    // Anything but a string names no folder.
    return folder.typeId() == QMetaType::QString ? UserFolders::expandTilde(folder.toString()) : QString();
}

} // namespace

QString QXUtils::quarantineLocationForActions() const
{
    if (_quarantineDetermined)
        return _quarantineLocation;
    const QString folder = quarantineFolderSetting(readPreferenceForKey(QStringLiteral("QuarantineFolder")));
    return QDir::isRelativePath(folder) ? QString() : folder;
}

void QXUtils::determineQuarantineSettings()
{
    _quarantineDetermined = true;
    _quarantineFiles = readPreferenceForKey(QStringLiteral("QuarantineInfected")).toBool();
    _quarantineLocation = quarantineFolderSetting(readPreferenceForKey(QStringLiteral("QuarantineFolder")));
    _quarantineConflicts.clear();
    // A relative folder would lie wherever the agent happens to run.
    if (!_quarantineLocation.isEmpty() && QDir::isRelativePath(_quarantineLocation)) {
        _quarantineConflicts << QStringLiteral("the quarantine folder “%1” is not a full path: it is taken as not set")
                                    .arg(_quarantineLocation);
        _quarantineLocation = QString();
    }
    if (quarantineOverlapsWatchedFolder(watchedRoots()))
        _quarantineConflicts << QStringLiteral("the quarantine folder %1 overlaps a watched folder: only the files "
                                               "quarantined from the list are left out of scans")
                                    .arg(_quarantineLocation);

    if (!_quarantineFiles)
        return;
    if (!_quarantineLocation.isEmpty() && _quarantineLocation != QLatin1String("/")
        && QFileInfo::exists(_quarantineLocation))
        return;
    _quarantineFiles = false;
    appendToConsole(Localization::text("QUARANTINE_PROBLEM"));
}

QString QXUtils::escapedLiteralPattern(const QString &pattern)
{
    QString escaped = pattern;
    escaped.remove(QLatin1Char('~'));
    // The backslash first, so that the ones added below stay single.
    escaped.replace(QLatin1String("\\"), QLatin1String("\\\\"));
    for (const char *special : {"[", "^", "$", ".", "|", "?", "*", "+", "(", ")"})
        escaped.replace(QLatin1String(special), QStringLiteral("\\") + QLatin1String(special));
    return escaped;
}

QStringList QXUtils::watchedRoots() const
{
    QStringList roots;
    for (const QVariant &record : readPreferenceForKey(QStringLiteral("VardenFolderArray")).toList()) {
        const QVariant pathName = record.toMap().value(QStringLiteral("pathName"));
        if (pathName.typeId() == QMetaType::QString && !pathName.toString().isEmpty())
            roots << QDir::cleanPath(UserFolders::expandTilde(pathName.toString()));
    }
    return roots;
}

bool QXUtils::quarantineOverlapsWatchedFolder(const QStringList &roots) const
{
    if (_quarantineLocation.isEmpty())
        return false;
    const QString quarantine = QDir::cleanPath(_quarantineLocation);
    return std::any_of(roots.begin(), roots.end(), [&](const QString &root) {
        return isPathInsideFolder(root, quarantine) || isPathInsideFolder(quarantine, root);
    });
}

void QXUtils::determineWhatToExcludeFromThisScan()
{
    QStringList arguments;
    QList<QXExclusionPredicate> predicates;
    _watchedRootsOfScan = watchedRoots();
    _exclusionConflicts.clear();
    const QVariantList records = readPreferenceForKey(QStringLiteral("ExcludePatterns")).toList();
    for (const QVariant &entry : records) {
        const QVariantMap record = entry.toMap();
        const QString pattern = record.value(QStringLiteral("excludePattern")).toString();
        if (!record.value(QStringLiteral("excludeEnabled")).toBool() || pattern.isEmpty())
            continue;
        if (record.value(QStringLiteral("excludeRegEx")).toBool()) {
            arguments << QStringLiteral("--exclude=%1").arg(pattern) << QStringLiteral("--exclude-dir=%1").arg(pattern);
            predicates << QXExclusionPredicate::matching(pattern);
        } else {
            const QString escaped = escapedLiteralPattern(pattern);
            arguments << QStringLiteral("--exclude=%1").arg(escaped) << QStringLiteral("--exclude-dir=%1").arg(escaped);
            predicates << QXExclusionPredicate::containing(pattern);
        }
        for (const QString &root : std::as_const(_watchedRootsOfScan)) {
            if (predicates.last().evaluate(root) || predicates.last().evaluate(root + QLatin1Char('/')))
                _exclusionConflicts << QStringLiteral("the exclusion “%1” matches the watched folder %2: it is "
                                                      "applied only to what lies below it")
                                           .arg(pattern, root);
        }
    }
    _userExcludes = predicates;

    _scanEmailFiles = readPreferenceForKey(QStringLiteral("ScanEmail")).toBool();
    _excludedMailStores.clear();
    if (!_scanEmailFiles) {
        for (const QString &store : _emailDirPaths) {
            arguments << QStringLiteral("--exclude-dir=%1").arg(store);
            predicates << QXExclusionPredicate::containing(store);
            _excludedMailStores << store;
        }
    }

    _exclusionStrings = arguments;
    _counterExcludes = predicates;
}

bool QXUtils::checkIfPathLooksLikeEmail(const QString &path) const
{
    for (const QString &store : _emailDirPaths) {
        if (path.startsWith(store))
            return true;
    }
    return false;
}

bool QXUtils::isPathInsideFolder(const QString &path, const QString &folder)
{
    if (folder.isEmpty())
        return false;
    // A separator must follow, or ".Trash-1" would hold user 1000's Trash.
    const QString inside = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    return path == folder || path.startsWith(inside);
}

bool QXUtils::isFileInTrash(const QString &path) const
{
    return !anyOutsideTrash({path});
}

// The Trash folders are read from the mount table once for all the paths.
bool QXUtils::anyOutsideTrash(const QStringList &paths) const
{
    const QStringList folders = Trash::sharedTrash()->trashFolders();
    return std::any_of(paths.begin(), paths.end(), [&](const QString &path) {
        return std::none_of(folders.begin(), folders.end(),
                            [&](const QString &folder) { return isPathInsideFolder(path, folder); });
    });
}

QStringList QXUtils::leaveExcludedPathsOutOfBatch(const QStringList &batch, const QStringList &quarantinedByUs) const
{
    QStringList folders = Trash::sharedTrash()->trashFolders() + _excludedMailStores;
    // "/" is an unusable quarantine folder and must not leave everything out;
    // nor may one around or inside a watched folder leave that folder out.
    const QString quarantine = QDir::cleanPath(_quarantineLocation);
    if (quarantineOverlapsWatchedFolder(_watchedRootsOfScan))
        folders << quarantinedByUs;
    else if (!_quarantineLocation.isEmpty() && quarantine != QLatin1String("/"))
        folders << quarantine;

    QStringList kept;
    int leftOut = 0;
    for (const QString &path : batch)
        kept << withoutExcludedParts(path, watchedRootOf(path), folders, leftOut);
    if (leftOut > 0)
        SystemLog::log(QStringLiteral("left out of this scan: %1").arg(leftOut));
    return kept;
}

QString QXUtils::watchedRootOf(const QString &path) const
{
    QString nearest;
    for (const QString &root : _watchedRootsOfScan) {
        if (isPathInsideFolder(path, root) && root.size() > nearest.size())
            nearest = root;
    }
    return nearest;
}

bool QXUtils::isExcludedPath(const QString &path, const QString &root, const QStringList &folders) const
{
    // The user's exclusions look only below the watched folder, so that a
    // word that happens to be in the home folder's name cannot leave it all out.
    const QString below = root.isEmpty() || root == QLatin1String("/") ? path : path.mid(root.size());
    return std::any_of(folders.begin(), folders.end(),
                       [&](const QString &folder) { return isPathInsideFolder(path, folder); })
           || (!below.isEmpty()
               && std::any_of(_userExcludes.begin(), _userExcludes.end(),
                              [&](const QXExclusionPredicate &predicate) { return predicate.evaluate(below); }));
}

QStringList QXUtils::withoutExcludedParts(const QString &path, const QString &root, const QStringList &folders,
                                          int &leftOut) const
{
    const QFileInfo info(path);
    const bool isFolder = info.isDir() && !info.isSymLink();
    const QString asFolder = path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
    // A pattern that names a folder with its trailing "/" covers the folder too.
    if (isExcludedPath(path, root, folders) || (isFolder && path != root && isExcludedPath(asFolder, root, folders))) {
        ++leftOut;
        return {};
    }
    if (!isFolder)
        return {path};

    // The daemon scans a folder whole, so one holding something excluded is
    // replaced by what it holds less that. Only the branches that lead to an
    // excluded entry are opened; the rest stay single paths.
    const bool mayHoldExcluded = !_userExcludes.isEmpty()
                                 || std::any_of(folders.begin(), folders.end(),
                                                [&](const QString &folder) { return folder.startsWith(asFolder); });
    if (!mayHoldExcluded)
        return {path};
    // Links and special files are left out as the daemon leaves them out of a folder.
    const QStringList names = QDir(path).entryList(
        QDir::Dirs | QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Name);
    QStringList inside;
    bool changed = false;
    for (const QString &name : names) {
        const QString child = asFolder + name;
        const QStringList part = withoutExcludedParts(child, root, folders, leftOut);
        changed = changed || part != QStringList{child};
        inside << part;
    }
    return changed ? inside : QStringList{path};
}

void QXUtils::postToNotificationCenterWithTitle(const QString &title, const QString &message)
{
    if (message.isNull())
        return;
    UserNotificationCenter *center = UserNotificationCenter::defaultCenter();
    if (center->canDeliver())
        center->deliverNotification(title, message);
}

bool QXUtils::updaterNeedsExit1FreshclamFlag() const
{
    QMutexLocker locker(&_checkerLock);
    return _updaterNeedsExit1FreshclamFlag;
}

void QXUtils::setUpdaterNeedsExit1FreshclamFlag(bool flag)
{
    {
        QMutexLocker locker(&_checkerLock);
        _updaterNeedsExit1FreshclamFlag = flag;
    }
    // The preference controller belongs to the main thread.
    QMetaObject::invokeMethod(
        this, [this, flag] { recordNeedsExit1FreshclamFlag(flag); }, Qt::QueuedConnection);
}

void QXUtils::recordNeedsExit1FreshclamFlag(bool flag)
{
    setPreference(flag, QStringLiteral("NeedsExit1FreshclamFlag"));
    syncPrefs();
}

bool QXUtils::engineSupportsFileListFlag() const
{
    QMutexLocker locker(&_checkerLock);
    return _engineSupportsFileListFlag;
}

void QXUtils::setEngineSupportsFileListFlag(bool flag)
{
    QMutexLocker locker(&_checkerLock);
    _engineSupportsFileListFlag = flag;
}

QString QXUtils::engineShortVersionString() const
{
    QMutexLocker locker(&_checkerLock);
    return _engineShortVersionString;
}

void QXUtils::setEngineShortVersionString(const QString &version)
{
    QMutexLocker locker(&_checkerLock);
    _engineShortVersionString = version;
}

bool QXUtils::wantScanStatusUpdates() const
{
    return _wantScanStatusUpdates;
}

bool QXUtils::wantUpdatePercentages() const
{
    return _wantUpdatePercentages;
}

void QXUtils::scanStarted()
{
    _scanning = true;
    // The second run of a batch is the same scan for the agent.
    if (_rescanningBatch)
        return;
    _countOfFilesScannedSoFar = 0;
    _delegate->scanStarted();
}

void QXUtils::scanFinishedWithStatus(int status)
{
    // The daemon client ends with 2 when it lost the daemon or a client of
    // a shared batch failed, or with 1 when it had found something before.
    // Whether the daemon still answers is
    // asked on the checker's thread, since one that hangs keeps the asker
    // waiting. A local daemon is restarted once per batch; a scanning service
    // is waited for as often as it goes away, since nothing else can scan.
    if (_useClamd && (status == 1 || status == 2) && _theChecker
        && (!_rescanningBatch || _theChecker->clamdIsRemote())) {
        QXEngineChecker *checker = _theChecker;
        checker->perform([this, checker, status] {
            const bool remote = checker->clamdIsRemote();
            const bool answering = (remote || checker->clamdRunning()) && checker->clamdResponding();
            QMetaObject::invokeMethod(
                this, [this, answering, remote, status] { daemonCheckedAfterScan(answering, remote, status); },
                Qt::QueuedConnection);
        });
        return;
    }
    finishBatch(status);
}

void QXUtils::daemonCheckedAfterScan(bool answering, bool remote, int status)
{
    // A stop meanwhile leaves nothing to scan again.
    if (answering && !_unscannedOfBatch.isEmpty() && !_batchInFlight.isEmpty()) {
        SystemLog::log(QStringLiteral("%1 files of the batch were left unscanned: scanning them again")
                           .arg(_unscannedOfBatch.size()));
        _rescanningBatch = true;
        QXScanner *scanner = _theScanner;
        const QStringList unscanned = _unscannedOfBatch;
        _unscannedOfBatch.clear();
        scanner->perform([scanner, unscanned] { scanner->runScanOnFiles(unscanned); });
        return;
    }
    // A batch the engine refused outright may have failed on the user's
    // extra arguments: it goes once more without them.
    if (answering && status == 2 && _hasAdditionalCmdArgs && !_batchInFlight.isEmpty()) {
        SystemLog::log(QStringLiteral("the batch failed with the scanner arguments \"%1\": scanning it again without "
                                      "them")
                           .arg(_additionalCmdArgs));
        _cmdArgsOfBatch = _additionalCmdArgs;
        _hasAdditionalCmdArgs = false;
        _additionalCmdArgs.clear();
        _retryingWithoutCmdArgs = true;
        rescanBatchInFlight();
        return;
    }
    if (answering) {
        finishBatch(status);
        return;
    }
    _statusOfLostScan = status;
    if (remote && _batchInFlight.isEmpty()) {
        finishBatch(status);
        return;
    }
    if (remote) {
        // The dispatcher holds every later file meanwhile, since the
        // controller is not ready until this batch ends.
        SystemLog::log(QStringLiteral("the scanning service stopped answering during a scan: the batch waits "
                                      "until it answers again (paths: %1)")
                           .arg(_batchInFlight.size()));
        _batchWaitsForRemoteService = true;
        askRemoteService();
        return;
    }
    SystemLog::log(QStringLiteral("the scan daemon stopped answering during a scan: starting it again"));
    _restartingClamdForBatch = true;
    QXEngineChecker *checker = _theChecker;
    checker->perform([checker] { checker->startClamd(); });
}

void QXUtils::finishBatch(int status)
{
    if (_retryingWithoutCmdArgs && status < 2) {
        _refusedCmdArgs = _cmdArgsOfBatch;
        _argumentConflicts << refusedArgumentsConflict();
        appendToConsole(refusedArgumentsConflict());
    }
    _retryingWithoutCmdArgs = false;
    _rescanningBatch = false;
    _batchInFlight.clear();
    _unscannedOfBatch.clear();
    _infectedPathsOfBatch.clear();
    _delegate->scanFinishedWithStatus(status);
}

void QXUtils::filesLeftUnscanned(const QStringList &paths)
{
    // The second run of a batch is its last.
    if (!_rescanningBatch)
        _unscannedOfBatch = paths;
}

void QXUtils::scanCrashed(const QString &reason)
{
    _delegate->scanCrashed(reason);
}

void QXUtils::updateProgressBar()
{
    ++_countOfFilesScannedSoFar;
    _delegate->updateProgressBarWithCountOfFilesScannedSoFar(_countOfFilesScannedSoFar);
}

void QXUtils::appendToConsole(const QString &text)
{
    if (_delegate && _delegate->respondsTo(QXUtilsDelegate::Optional::AppendToConsole))
        _delegate->appendToConsole(text);
}

void QXUtils::infectionFound(const QString &line)
{
    const qsizetype colon = line.lastIndexOf(QLatin1Char(':'));
    if (colon < 0)
        return;
    // What follows the colon is ": " + name + " FOUND"; shorter is no name.
    const qsizetype nameLength = line.size() - colon - 8;
    if (nameLength <= 0)
        return;
    const QString path = line.left(colon);
    const QString name = line.mid(colon + 2, nameLength);
    // A batch scanned again after the daemon was lost reports each file once.
    if (_rescanningBatch && _infectedPathsOfBatch.contains(path))
        return;
    _infectedPathsOfBatch.insert(path);

    // An infection inside an application bundle is reported as the bundle,
    // which is what the user sees as one file.
    QString file = path;
    if (path != QLatin1String("/")) {
        QString candidate = path;
        while (!candidate.isEmpty()) {
            if (Workspace::isFilePackageAtPath(candidate)) {
                file = candidate;
                break;
            }
            const QString parent = QFileInfo(candidate).path();
            if (parent == QLatin1String("/") || parent == candidate)
                break;
            candidate = parent;
        }
    }
    _delegate->infectionFound(name, file);
}

QStringList QXUtils::obtainFilesForSavedSearchAtPath(const QString &path, bool *whole)
{
    // Runs on a worker's thread; the console text goes to the main thread.
    const auto console = [this](const QString &text) {
        QMetaObject::invokeMethod(
            this, [this, text] { appendToConsole(text); }, Qt::QueuedConnection);
    };
    QXSavedSearch search(path);
    const QStringList found = search.expand(_savedSearchEntryLimit);
    if (!search.problem().isEmpty()) {
        SystemLog::log(QStringLiteral("saved search: %1").arg(search.problem()));
        console(Localization::text("SPOTLIGHT_PROBLEM").replace(QLatin1String("%@"), QFileInfo(path).fileName()));
        return {};
    }
    if (whole)
        *whole = !search.gaveUp();
    if (!search.gaveUp()) {
        console(Localization::text("SPOTLIGHT_SUCCESS").replace(QLatin1String("%d"), QString::number(found.size())));
        return found;
    }
    // What the search would have found past its bound goes unscanned: say so
    // rather than report the part as the whole.
    const qint64 limit = _savedSearchEntryLimit;
    SystemLog::log(QStringLiteral("saved search %1 gave up after %2 entries").arg(path).arg(limit));
    QMetaObject::invokeMethod(
        this,
        [this, path, limit] {
            if (_delegate && _delegate->respondsTo(QXUtilsDelegate::Optional::SavedSearchCutAtPath))
                _delegate->savedSearchCutAtPath(path, limit);
        },
        Qt::QueuedConnection);
    console(Localization::text("SPOTLIGHT_CUT")
                .replace(QLatin1String("%@"), QFileInfo(path).fileName())
                .replace(QLatin1String("%d"), QString::number(limit)));
    return found;
}

void QXUtils::updateStarted()
{
    _updating = true;
    _delegate->updateStarted();
}

void QXUtils::updateFinishedWithStatus(int status)
{
    _delegate->updateFinishedWithStatus(status);
    _updating = false;
}

void QXUtils::updateProgressWithMessage(const QString &message)
{
    _delegate->updateProgressWithMessage(message);
}

void QXUtils::updateProgressWithPercentDone(double percent)
{
    _delegate->updateProgressWithPercentDone(percent);
}

void QXUtils::engineCheckFailedTryAgain()
{
    QTimer::singleShot(retrySameCandidateMs, this, &QXUtils::checkEngine);
}

void QXUtils::engineNotFound()
{
    ++_enginePathsEnumerator;
    ++_updateLogPathsEnumerator;
    _enginePath = _enginePathsArray.value(_enginePathsEnumerator);
    _updateLogPath = _updateLogPathsArray.value(_updateLogPathsEnumerator);
    if (_enginePathsEnumerator < _enginePathsArray.size()) {
        QTimer::singleShot(tryNextCandidateMs, this, &QXUtils::checkEngine);
        return;
    }
    deletePreferenceForKey(QStringLiteral("PathToClamav"));
    deletePreferenceForKey(QStringLiteral("PathToUpdateLog"));
    syncPrefs();
    _delegate->engineNotFound();
    SystemLog::log(QStringLiteral("engine not found"));
}

void QXUtils::engineFoundWithVersionString(const QString &version)
{
    setPreference(_enginePath, QStringLiteral("PathToClamav"));
    setPreference(_updateLogPath, QStringLiteral("PathToUpdateLog"));
    syncPrefs();
    _delegate->engineFoundWithVersionString(version);
    if (!_useClamd)
        return;
    // Asked on the checker's thread: a service behind a silent network would
    // hold the main thread for the whole time limit.
    if (_theChecker->clamdIsRemote()) {
        _startupWaitsForRemoteService = true;
        askRemoteService();
        return;
    }
    if (_theChecker->clamdRunning() && _theChecker->clamdResponding()) {
        if (_delegate->respondsTo(QXUtilsDelegate::Optional::ClamdAlreadyRunning))
            _delegate->clamdAlreadyRunning();
        return;
    }
    // A daemon process that does not answer on our socket may be another
    // installation's (or the system's) daemon: ours is started all the same.
    SystemLog::log(QStringLiteral("starting clamd..."));
    QXEngineChecker *checker = _theChecker;
    checker->perform([checker] { checker->startClamd(); });
}

void QXUtils::needToUpdateDB()
{
    if (_delegate->respondsTo(QXUtilsDelegate::Optional::NeedToUpdateDB))
        _delegate->needToUpdateDB();
}

void QXUtils::needToUpdateEngine()
{
    if (_delegate->respondsTo(QXUtilsDelegate::Optional::NeedToUpdateEngineDisplayVersionString))
        _delegate->needToUpdateEngineDisplayVersionString(_theChecker->versionString());
}

void QXUtils::clamdStarted()
{
    if (_restartingClamdForBatch) {
        _restartingClamdForBatch = false;
        rescanBatchInFlight();
        return;
    }
    if (_delegate->respondsTo(QXUtilsDelegate::Optional::ClamdStarted))
        _delegate->clamdStarted();
}

void QXUtils::clamdFailedToStart()
{
    if (_restartingClamdForBatch) {
        _restartingClamdForBatch = false;
        finishBatch(_statusOfLostScan);
    }
    if (_delegate->respondsTo(QXUtilsDelegate::Optional::ClamdFailedToStart))
        _delegate->clamdFailedToStart();
}

void QXUtils::rescanBatchInFlight()
{
    // A stop while the daemon was away ends the batch here.
    if (_batchInFlight.isEmpty()) {
        finishBatch(_statusOfLostScan);
        return;
    }
    _rescanningBatch = true;
    QXScanner *scanner = _theScanner;
    const QStringList batch = _batchInFlight;
    scanner->perform([scanner, batch] { scanner->runScanOnFiles(batch); });
}

void QXUtils::askRemoteService()
{
    if (!_theChecker)
        return;
    QXEngineChecker *checker = _theChecker;
    checker->perform([this, checker] {
        const QString name = checker->clamdConfiguration().remoteDaemonName();
        const bool answering = checker->clamdResponding();
        QMetaObject::invokeMethod(
            this, [this, answering, name] { remoteServiceAsked(answering, name); }, Qt::QueuedConnection);
    });
}

void QXUtils::remoteServiceAsked(bool answering, const QString &name)
{
    // Nobody waits any more (the scan was stopped): the next outage is news again.
    if (!_startupWaitsForRemoteService && !_batchWaitsForRemoteService) {
        _remoteServiceAway = false;
        return;
    }
    if (!answering) {
        if (!_remoteServiceAway) {
            _remoteServiceAway = true;
            SystemLog::log(QStringLiteral("the scanning service at %1 does not answer: asking again every %2 s")
                               .arg(name)
                               .arg(_remoteServiceTimer.interval() / 1000.0));
            if (_startupWaitsForRemoteService && _delegate->respondsTo(QXUtilsDelegate::Optional::ClamdFailedToStart))
                _delegate->clamdFailedToStart();
        }
        _remoteServiceTimer.start();
        return;
    }
    if (_remoteServiceAway) {
        _remoteServiceAway = false;
        SystemLog::log(QStringLiteral("the scanning service at %1 answers again").arg(name));
    }
    if (_batchWaitsForRemoteService) {
        _batchWaitsForRemoteService = false;
        rescanBatchInFlight();
    }
    if (_startupWaitsForRemoteService) {
        _startupWaitsForRemoteService = false;
        if (_delegate->respondsTo(QXUtilsDelegate::Optional::ClamdAlreadyRunning))
            _delegate->clamdAlreadyRunning();
    }
}
