// Handing batches to the scanner, its reports, counting, and stopping.
#include "QXUtils.h"

#include "QXEngineChecker.h"
#include "QXFileCounter.h"
#include "QXSavedSearch.h"
#include "QXScanner.h"
#include "QXUpdater.h"
#include "QXUtilsDelegate.h"
#include "platform/Localization.h"
#include "platform/SystemLog.h"
#include "platform/Workspace.h"

#include <QFileInfo>
#include <QThreadPool>

void QXUtils::scanFiles(const QStringList &paths, bool logged, const QString &note)
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
    scanner->perform([scanner, batch, note] { scanner->runScanOnFiles(batch, note); });
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
    const std::optional<QXScanner::Found> found = QXScanner::foundInLine(line);
    if (!found)
        return;
    const QString &path = found->path;
    const QString &name = found->infectionName;
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
    QStringList found = search.expand(_savedSearchEntryLimit);
    // The daemon's client takes no exclusions, so what the search finds in an
    // excluded place is left out here, as the stand-alone scanner leaves it.
    // The settings were read before the scan began and hold still during it.
    if (_useClamd)
        found = leaveExcludedPathsOutOfBatch(found);
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
