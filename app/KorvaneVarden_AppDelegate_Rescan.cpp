// The journal of files scanned clean, and their scan again after a
// definitions update.
#include "KorvaneVarden_AppDelegate.h"

#include "DefinitionsRescan.h"
#include "Dispatcher.h"
#include "platform/SystemLog.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QDateTime>

namespace {

constexpr int minRescanBatch = 8;
constexpr int maxRescanBatch = 5000;

} // namespace

void KorvaneVarden_AppDelegate::setupRescan()
{
    _cleanScanJournal = new CleanScanJournal(CleanScanJournal::defaultFolder(), this);
    if (!_cleanScanJournal->load())
        SystemLog::log(QStringLiteral("no journal of clean scans, so no scan again after updates: %1")
                           .arg(_cleanScanJournal->problem()));
    _definitionsRescan = new DefinitionsRescan(_cleanScanJournal, CleanScanJournal::defaultFolder(), this);
    // Picks the rescan up again whenever the agent has been busy or waiting;
    // it runs only while files are queued.
    _rescanTimer.setInterval(250);
    connect(&_rescanTimer, &QTimer::timeout, this, &KorvaneVarden_AppDelegate::feedRescan);
    if (_definitionsRescan->hasPending())
        _rescanTimer.start();
}

bool KorvaneVarden_AppDelegate::rescanEnabled() const
{
    return _cleanScanJournal->problem().isEmpty()
           && _utils->readPreferenceForKey(QStringLiteral("RescanAfterUpdate")).toBool();
}

void KorvaneVarden_AppDelegate::feedRescan()
{
    if (!_definitionsRescan->hasPending() || !rescanEnabled()) {
        _definitionsRescan->clear();
        _rescanTimer.stop();
        return;
    }
    // New files of the watcher always go first.
    if (!_watching || !readyToScan() || _utils->scanning() || _utils->updating() || !_dispatcher->readyList().isEmpty())
        return;
    _definitionsRescan->setEnginePath(_utils->enginePath());
    if (!_definitionsRescan->readyToFeed())
        return;
    QStringList batch = _definitionsRescan->takeBatch(_rescanBatchSize);
    if (batch.isEmpty()) {
        _definitionsRescan->batchDone();
        return;
    }
    _readyToScan = false;
    _utils->setScanning(true);
    _utils->determineQuarantineSettings();
    _utils->determineWhatToExcludeFromThisScan();
    // Exclusions set since the clean scan hold for its files too.
    batch = _utils->leaveExcludedPathsOutOfBatch(batch, {});
    if (batch.isEmpty()) {
        _definitionsRescan->batchDone();
        _utils->setScanning(false);
        _readyToScan = true;
        return;
    }
    noteBatchBeforeScan(batch);
    _rescanBatch = true;
    _rescanBatchClock.start();
    _utils->scanFiles(batch, true, _definitionsRescan->logLineForBatch(batch));
}

void KorvaneVarden_AppDelegate::noteBatchBeforeScan(const QStringList &batch)
{
    _batchBeforeScan.clear();
    _infectedOfBatch.clear();
    // Without the journal nothing would be recorded: the files are not looked at.
    if (!rescanEnabled())
        return;
    for (const QString &path : batch) {
        if (const std::optional<CleanScanJournal::Entry> entry = CleanScanJournal::entryForFile(path))
            _batchBeforeScan.insert(path, *entry);
    }
}

void KorvaneVarden_AppDelegate::takeCleanScans(int status)
{
    const QHash<QString, CleanScanJournal::Entry> before = std::exchange(_batchBeforeScan, {});
    const QSet<QString> infected = std::exchange(_infectedOfBatch, {});
    const bool rescan = std::exchange(_rescanBatch, false);
    if (rescan) {
        // A batch that ended otherwise than with its files scanned is
        // handed out again.
        if (status == 0 || status == 1)
            _definitionsRescan->batchDone();
        else
            _definitionsRescan->batchAbandoned();
        const qint64 took = std::max<qint64>(_rescanBatchClock.elapsed(), 1);
        _rescanBatchSize = int(std::clamp<qint64>(qint64(_rescanBatchSize) * rescanBatchTargetMs / took,
                                                  std::max(minRescanBatch, _rescanBatchSize / 2),
                                                  std::min(maxRescanBatch, _rescanBatchSize * 2)));
    }
    if ((status != 0 && status != 1) || before.isEmpty() || !rescanEnabled())
        return;
    const QVariant days = _utils->readPreferenceForKey(QStringLiteral("RescanJournalDays"));
    bool number = false;
    const double wanted = days.toDouble(&number);
    _cleanScanJournal->setMaxAgeDays(number && wanted >= 1 ? int(std::min(wanted, 365.0))
                                                           : CleanScanJournal::defaultMaxAgeDays);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    QList<CleanScanJournal::Entry> clean;
    for (const CleanScanJournal::Entry &entry : before) {
        // Found itself or inside a found path; looked up, so that a burst's
        // thousand finds are not compared with each of its files.
        bool found = false;
        for (qsizetype end = entry.path.size(); end > 0 && !found;
             end = entry.path.lastIndexOf(QLatin1Char('/'), end - 1))
            found = infected.contains(entry.path.left(end));
        // A file changed during the scan is the watcher's to scan again.
        if (found || !CleanScanJournal::unchanged(entry))
            continue;
        CleanScanJournal::Entry scanned = entry;
        scanned.scannedAt = now;
        clean.append(scanned);
    }
    _cleanScanJournal->record(clean);
}
