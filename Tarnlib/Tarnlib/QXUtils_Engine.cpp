// Finding the engine, its arguments, and its check, daemon and update reports.
#include "QXUtils.h"

#include "QXEngineChecker.h"
#include "QXUpdater.h"
#include "QXUtilsDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/SystemLog.h"
#include "platform/UserDefaults.h"
#include "platform/UserDefaultsController.h"
#include "platform/UserFolders.h"

#include <QMutexLocker>
#include <QTimer>

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

    // The companion keeps its own scan log beside ours, whichever road its
    // scans take.
    _pathToScanLog = UserFolders::logs()
                     + (_useClamd && !runningAsCompanion() ? QStringLiteral("/KorvaneVarden-scan.log")
                                                           : QStringLiteral("/korvane-scan.log"));

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
