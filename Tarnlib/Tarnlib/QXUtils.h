#pragma once

#include "QXEngineCheckerDelegate.h"
#include "QXExclusionPolicy.h"
#include "QXExclusionPredicate.h"
#include "QXFileCounterDelegate.h"
#include "QXScannerDelegate.h"
#include "QXUpdaterDelegate.h"

#include <QList>
#include <QMutex>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <QVariant>
#include <QVariantMap>

#include <memory>

class QThreadPool;
class QXEngineChecker;
class QXFileCounter;
class QXScanner;
class QXUpdater;
class QXUtilsDelegate;
class UserDefaultsController;

// The one settings-and-policy object: preference access over the built-in
// defaults, engine and log locations, scan policy, and the coordinator of
// the engine workers, whose reports it relays to its delegate.
class QXUtils : public QObject,
                public QXScannerDelegate,
                public QXEngineCheckerDelegate,
                public QXUpdaterDelegate,
                public QXFileCounterDelegate
{
    Q_OBJECT
public:
    // An engine installation prefix and the update log that belongs to it.
    using EngineCandidate = QPair<QString, QString>;

    explicit QXUtils(QXUtilsDelegate *delegate, QObject *parent = nullptr);
    // Tests hand their own candidate table so they never depend on what is
    // installed on the machine.
    QXUtils(QXUtilsDelegate *delegate, const QList<EngineCandidate> &engineCandidates, QObject *parent = nullptr);
    ~QXUtils() override;

    static QList<EngineCandidate> defaultEngineCandidates();
    static QVariantMap builtInDefaults();

    // Preferences.
    QVariant readPreferenceForKey(const QString &key) const;
    void setPreference(const QVariant &value, const QString &key);
    void deletePreferenceForKey(const QString &key);
    void syncPrefs();
    void revertPrefs();
    // True when the running program is the companion application itself.
    static bool runningAsCompanion();

    // Coordinator operations called by the controller.
    void setup();
    void checkEngine();
    void updateDefs();
    // The agent's self-test scans without a line in the user's scan log.
    void scanFiles(const QStringList &paths, bool logged = true, const QString &note = {});
    void countFiles(const QStringList &paths);
    void pauseResume();
    void stop();
    void determineQuarantineSettings();
    void determineWhatToExcludeFromThisScan();
    // The "AdditionalCmdLineArgs" to pass, less those that would move or
    // delete files and those the engine refused before.
    void determineAdditionalArguments();
    // Whether a path lies in one of the mail programs' message stores.
    bool checkIfPathLooksLikeEmail(const QString &path) const;
    // Whether a path lies in one of the current user's Trash folders.
    bool isFileInTrash(const QString &path) const;
    // Whether at least one of the paths lies outside every Trash folder.
    bool anyOutsideTrash(const QStringList &paths) const;
    // The batch less what this scan leaves out, logging how much: paths
    // that satisfy one of the user's exclusions below their watched folder,
    // mail stores when mail is not scanned, and paths in the quarantine
    // folder or the Trash, which the user put there after a scan found them.
    // A quarantine folder that overlaps a watched folder is not left out
    // whole: only quarantinedByUs, the files the agent itself moved there.
    // A folder that holds such paths is replaced by the rest of its contents.
    QStringList leaveExcludedPathsOutOfBatch(const QStringList &batch, const QStringList &quarantinedByUs = {}) const;
    // What the watcher leaves unwatched, read from the settings as they are
    // now, not as the running scan took them.
    QXExclusionPolicy exclusionPolicy() const;
    // What in the settings of the last scan keeps the guard from its full
    // work, in plain words; empty when nothing does.
    QStringList settingsConflicts() const { return _exclusionConflicts + _quarantineConflicts + _argumentConflicts; }
    void postToNotificationCenterWithTitle(const QString &title, const QString &message);

    // Questions the delegate answers.
    bool wantScanStatusUpdates() const override;
    bool wantUpdatePercentages() const override;

    // Reports of the scanner.
    void scanStarted() override;
    void scanFinishedWithStatus(int status) override;
    void scanCrashed(const QString &reason) override;
    void filesLeftUnscanned(const QStringList &paths) override;
    void updateProgressBar() override;
    void appendToConsole(const QString &text) override;
    void infectionFound(const QString &line) override;
    QStringList obtainFilesForSavedSearchAtPath(const QString &path, bool *whole = nullptr) override;

    // Report of the file counter.
    void fileCounterReturned(qint64 count) override;

    // Reports of the updater.
    void updateStarted() override;
    void updateFinishedWithStatus(int status) override;
    void updateProgressWithMessage(const QString &message) override;
    void updateProgressWithPercentDone(double percent) override;

    // Reports of the engine checker.
    void engineCheckFailedTryAgain() override;
    void engineNotFound() override;
    void engineFoundWithVersionString(const QString &version) override;
    void needToUpdateDB() override;
    void needToUpdateEngine() override;
    void clamdStarted() override;
    void clamdFailedToStart() override;

    // How long the engine walk waits before checking again.
    static constexpr int retrySameCandidateMs = 1000;
    static constexpr int tryNextCandidateMs = 200;
    // How often a scanning service that does not answer is asked again.
    static constexpr int defaultRemoteServiceRetryMs = 10000;
    int remoteServiceRetryMs() const { return _remoteServiceTimer.interval(); }
    void setRemoteServiceRetryMs(int ms) { _remoteServiceTimer.setInterval(ms); }
    // Whether a batch waits for the scanning service to answer again.
    bool batchWaitsForRemoteService() const { return _batchWaitsForRemoteService; }

    QXUtilsDelegate *delegate() const { return _delegate; }
    void setDelegate(QXUtilsDelegate *delegate) { _delegate = delegate; }
    quint32 countOfFilesScannedSoFar() const { return _countOfFilesScannedSoFar; }
    QStringList pathsToScan() const override { return _pathsToScan; }
    QString enginePath() const override { return _enginePath; }
    void setEnginePath(const QString &path) { _enginePath = path; }
    QString updateLogPath() const override { return _updateLogPath; }
    void setUpdateLogPath(const QString &path) { _updateLogPath = path; }
    QString pathToScanLog() const override { return _pathToScanLog; }
    QString quarantineLocation() const override { return _quarantineLocation; }
    void setQuarantineLocation(const QString &path)
    {
        _quarantineLocation = path;
        _quarantineDetermined = true;
    }
    // The folder the list's actions quarantine into: that of the last scan
    // start or, before the first, the one the settings name now, since rows
    // outlive a restart.
    QString quarantineLocationForActions() const;
    QString additionalCmdArgs() const override { return _additionalCmdArgs; }
    bool hasAdditionalCmdArgs() const override { return _hasAdditionalCmdArgs; }
    // Set by the engine checker on its thread, read by the other workers.
    bool updaterNeedsExit1FreshclamFlag() const override;
    void setUpdaterNeedsExit1FreshclamFlag(bool flag) override;
    bool engineSupportsFileListFlag() const override;
    void setEngineSupportsFileListFlag(bool flag) override;
    bool scanEmailFiles() const override { return _scanEmailFiles; }
    bool logScans() const override { return _logScans; }
    bool logUpdates() const override { return _logUpdates; }
    bool suppressSummary() const override { return _suppressSummary; }
    bool useClamd() const override { return _useClamd; }
    bool quarantineFiles() const override { return _quarantineFiles; }
    QStringList exclusionStrings() const override { return _exclusionStrings; }
    QList<QXExclusionPredicate> counterExcludes() const override { return _counterExcludes; }
    QStringList exclusionStringsForRootVolScan() const override { return _exclusionStringsForRootVolScan; }
    bool scanning() const { return _scanning; }
    void setScanning(bool flag) { _scanning = flag; }
    bool updating() const { return _updating; }
    void setUpdating(bool flag) { _updating = flag; }
    bool paused() const { return _paused; }
    QString launchAgentsDir() const { return _launchAgentsDir; }
    QString engineShortVersionString() const override;
    void setEngineShortVersionString(const QString &version) override;
    QThreadPool *theOperationQueue() const { return _theOperationQueue; }
    QXFileCounter *theFileCounter() const { return _theFileCounter.get(); }
    // How many entries a saved search looks at before it gives up.
    qsizetype savedSearchEntryLimit() const { return _savedSearchEntryLimit; }
    void setSavedSearchEntryLimit(qsizetype limit) { _savedSearchEntryLimit = limit; }
    QXScanner *theScanner() const { return _theScanner; }
    QXEngineChecker *theChecker() const { return _theChecker; }
    QXUpdater *theUpdater() const { return _theUpdater; }
    QStringList enginePathsArray() const { return _enginePathsArray; }
    QStringList updateLogPathsArray() const { return _updateLogPathsArray; }
    UserDefaultsController *preferences() const { return _preferences; }
    QStringList emailDirPaths() const { return _emailDirPaths; }

    // A literal exclusion pattern made safe for the engine's regular expressions.
    static QString escapedLiteralPattern(const QString &pattern);

private:
    // The user's enabled exclusion records, with the engine's arguments for each when asked.
    QList<QXExclusionPredicate> userExclusions(QStringList *arguments) const;
    // The watched folders as absolute paths, as the settings have them now.
    QStringList watchedRoots() const;
    static bool quarantineOverlapsWatchedFolder(const QString &location, const QStringList &roots);
    QString refusedArgumentsConflict() const;
    void registerDefaultsAndDomains();
    void makeEngineCandidateLists(const QList<EngineCandidate> &fixed);
    // "PathToClamav" or "PathToUpdateLog" as the companion has it.
    QVariant customEngineSetting(const QString &key) const;
    void recordNeedsExit1FreshclamFlag(bool flag);
    void daemonCheckedAfterScan(bool answering, bool remote, int status);
    void rescanBatchInFlight();
    void askRemoteService();
    void remoteServiceAsked(bool answering, const QString &name);
    void finishBatch(int status);

    QXUtilsDelegate *_delegate;
    quint32 _countOfFilesScannedSoFar = 0;
    QStringList _pathsToScan;
    QString _enginePath;
    QString _updateLogPath;
    QString _pathToScanLog;
    QUrl _theQuarantinePathURL;
    QString _quarantineLocation;
    bool _quarantineDetermined = false;
    QString _additionalCmdArgs;
    // An empty "AdditionalCmdLineArgs" still adds one argument; absent adds none.
    bool _hasAdditionalCmdArgs = false;
    QString _clamDatabasePath;
    QString _freshclamConfPath;
    bool _updaterNeedsExit1FreshclamFlag = false;
    bool _engineSupportsFileListFlag = false;
    bool _scanEmailFiles = false;
    bool _logScans = false;
    bool _logUpdates = false;
    bool _suppressSummary = false;
    bool _useClamd = false;
    bool _wantScanStatusUpdates = false;
    bool _wantUpdatePercentages = false;
    bool _quarantineFiles = false;
    QStringList _exclusionStrings;
    QList<QXExclusionPredicate> _counterExcludes;
    QStringList _exclusionStringsForRootVolScan;
    bool _scanning = false;
    bool _updating = false;
    bool _paused = false;
    QString _launchAgentsDir;
    QString _engineShortVersionString;
    // Guards the three values the engine checker sets from its thread.
    mutable QMutex _checkerLock;
    QThreadPool *_theOperationQueue = nullptr;
    std::shared_ptr<QXFileCounter> _theFileCounter;
    // Every count not yet finished, replaced ones too, so that stop reaches them.
    QList<std::weak_ptr<QXFileCounter>> _fileCountersInFlight;
    qsizetype _savedSearchEntryLimit;
    QXUpdater *_theUpdater = nullptr;
    QXEngineChecker *_theChecker = nullptr;
    QXScanner *_theScanner = nullptr;
    QStringList _enginePathsArray;
    QStringList _updateLogPathsArray;
    qsizetype _enginePathsEnumerator = 0;
    qsizetype _updateLogPathsEnumerator = 0;
    UserDefaultsController *_preferences = nullptr;
    // Keys already logged for a value of the wrong type.
    mutable QSet<QString> _keysOfWrongType;
    QStringList _emailDirPaths;
    // A batch lost with the daemon is scanned once more after a restart;
    // what a failed client of a shared batch left is scanned once more.
    QStringList _batchInFlight;
    QStringList _unscannedOfBatch;
    QSet<QString> _infectedPathsOfBatch;
    bool _restartingClamdForBatch = false;
    bool _rescanningBatch = false;
    int _statusOfLostScan = 0;
    // Arguments that made the engine refuse a batch, which then went again
    // without them; they stay out until the setting changes.
    QString _refusedCmdArgs;
    QString _cmdArgsOfBatch;
    bool _retryingWithoutCmdArgs = false;
    QStringList _exclusionConflicts;
    QStringList _quarantineConflicts;
    QStringList _argumentConflicts;
    // The user's exclusions, tested below the watched folder, apart from the
    // mail stores, which are tested as folders.
    QList<QXExclusionPredicate> _userExcludes;
    QStringList _excludedMailStores;
    QStringList _watchedRootsOfScan;
    // A scanning service elsewhere is never started: while it does not
    // answer, the startup and the batch in flight wait and it is asked again.
    QTimer _remoteServiceTimer;
    bool _startupWaitsForRemoteService = false;
    bool _batchWaitsForRemoteService = false;
    bool _remoteServiceAway = false;
};
