#include "OnDemandScan.h"

#include "platform/AlertPresenter.h"
#include "platform/SystemBeep.h"
#include "platform/SystemLog.h"
#include "ui/InfectedFileActions.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QApplication>
#include <QScopeGuard>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>
#include <QTimer>

#include <algorithm>

OnDemandScan::OnDemandScan(QObject *parent)
    : OnDemandScan(QXUtils::defaultEngineCandidates(), parent)
{}

OnDemandScan::OnDemandScan(const QList<QXUtils::EngineCandidate> &engines, QObject *parent)
    : QObject(parent)
    , _engines(engines)
    , _results(new QXTInfectedViewArrayController(this))
    , _actions(nullptr)
{}

OnDemandScan::~OnDemandScan()
{
    delete _actions;
    delete _utils;
}

bool OnDemandScan::respondsTo(Optional optional) const
{
    return optional == Optional::NeedToUpdateDB || optional == Optional::NeedToUpdateEngineDisplayVersionString
           || optional == Optional::ClamdStarted || optional == Optional::ClamdFailedToStart
           || optional == Optional::ClamdAlreadyRunning || optional == Optional::SavedSearchCutAtPath;
}

void OnDemandScan::makeCoordinator()
{
    delete _actions;
    delete _utils;
    _utils = new QXUtils(this, _engines);
    // The scanner takes the road once, when it is made, so the setting is
    // read before.
    if (_useClamd && _utils->readPreferenceForKey(QStringLiteral("ScanWithoutDaemon")).toBool()) {
        _useClamd = false;
        delete _utils;
        _utils = new QXUtils(this, _engines);
    }
    _actions = new InfectedFileActions(
        _results, _utils, [](const QString &text) { SystemLog::log(text); }, this);
    _utils->setup();
    _utils->checkEngine();
}

bool OnDemandScan::start(const QStringList &paths)
{
    if (_running)
        return false;
    _summary = {};
    _paths.clear();
    _total = -1;
    _scanned = 0;
    _stopRequested = false;
    _scanBegun = false;
    _clock.start();
    for (const QString &path : paths) {
        const QFileInfo info(path);
        if (!info.exists() && !info.isSymLink()) {
            _summary.notScanned << QStringLiteral("%1: no such file or folder").arg(path);
            end(Result::Error, QStringLiteral("no such file or folder: %1").arg(path));
            return false;
        }
        _paths << QDir::cleanPath(info.absoluteFilePath());
    }
    _running = true;
    _useClamd = !_standalone;
    makeCoordinator();
    return true;
}

void OnDemandScan::engineNotFound()
{
    end(Result::Error, QStringLiteral("no virus engine was found"));
}

void OnDemandScan::needToUpdateDB()
{
    end(Result::Error, QStringLiteral("the virus engine has no definitions: update them first"));
}

void OnDemandScan::needToUpdateEngineDisplayVersionString(const QString &version)
{
    // The check ends here: without this answer the scan would wait forever.
    end(Result::Error, QStringLiteral("the virus engine %1 is too old: update it").arg(version));
}

void OnDemandScan::engineFoundWithVersionString(const QString &)
{
    // With the daemon the scan starts once it answers.
    if (!_useClamd)
        beginScan();
}

void OnDemandScan::clamdFailedToStart()
{
    if (!_running || _scanBegun)
        return;
    SystemLog::log(QStringLiteral("the scan daemon could not be had: scanning with the stand-alone scanner"));
    _useClamd = false;
    // Not from within the coordinator's own report.
    QTimer::singleShot(0, this, [this] {
        if (_running && !_stopRequested)
            makeCoordinator();
    });
}

void OnDemandScan::beginScan()
{
    if (!_running || _scanBegun)
        return;
    if (_stopRequested) {
        end(Result::Stopped);
        return;
    }
    _scanBegun = true;
    _utils->setScanning(true);
    _utils->determineQuarantineSettings();
    _utils->determineWhatToExcludeFromThisScan();
    // The daemon's client takes no exclusions, so they are left out of the
    // batch as the agent leaves them out of its own.
    QStringList batch = _paths;
    if (_useClamd) {
        batch = _utils->leaveExcludedPathsOutOfBatch(_paths);
        for (const QString &path : std::as_const(_paths)) {
            const bool kept = std::any_of(batch.begin(), batch.end(), [&](const QString &scanned) {
                return scanned == path || scanned.startsWith(path + QLatin1Char('/'));
            });
            if (!kept)
                _summary.notScanned << QStringLiteral("%1: excluded by the settings").arg(path);
        }
    }
    // The scanner appends only to a log that exists.
    const QString log = _utils->pathToScanLog();
    if (_utils->logScans() || _utils->readPreferenceForKey(QStringLiteral("LogScans")).toBool()) {
        QDir().mkpath(QFileInfo(log).path());
        QFile file(log);
        if (file.open(QIODevice::Append))
            file.close();
    }
    if (batch.isEmpty()) {
        _utils->setScanning(false);
        end(Result::Clean);
        return;
    }
    _utils->countFiles(_paths);
    _utils->scanFiles(batch);
}

void OnDemandScan::stop()
{
    if (!_running)
        return;
    _stopRequested = true;
    if (!_scanBegun) {
        end(Result::Stopped);
        return;
    }
    _utils->stop();
}

void OnDemandScan::updateProgressWithMessage(const QString &message)
{
    static const QLatin1String scanning("Scanning ");
    _currentFile = message.startsWith(scanning) ? message.mid(scanning.size()) : message;
}

void OnDemandScan::updateProgressBarWithCountOfFilesScannedSoFar(quint32 count)
{
    _scanned = count;
    // Files added during the scan raise the total rather than run past it.
    if (_total >= 0 && _scanned > _total)
        _total = _scanned;
    emit progress(_scanned, _total, _currentFile);
}

void OnDemandScan::fileCounterReturned(qint64 count)
{
    if (!_running)
        return;
    _total = std::max(count, _scanned);
    emit progress(_scanned, _total, _currentFile);
}

void OnDemandScan::savedSearchCutAtPath(const QString &path, qint64 entries)
{
    _summary.notScanned << QStringLiteral("%1: the saved search stopped after %2 entries").arg(path).arg(entries);
}

void OnDemandScan::infectionFound(const QString &infectionName, const QString &inFile)
{
    if (_results->containsFilePath(inFile))
        return;
    ++_summary.infected;
    _results->addObject({{QStringLiteral("fileName"), QFileInfo(inFile).fileName()},
                         {QStringLiteral("infectionName"), infectionName},
                         {QStringLiteral("filePath"), inFile},
                         {QStringLiteral("status"), QString("")}});
    emit foundInfection(inFile, infectionName);
    if (!_quarantine)
        return;
    if (_actions->quarantineFileAtIndex(_results->rowCount() - 1))
        ++_summary.quarantined;
    else
        _summary.notQuarantined << inFile;
}

void OnDemandScan::scanCrashed(const QString &reason)
{
    _utils->setScanning(false);
    end(Result::Error, reason);
}

void OnDemandScan::scanFinishedWithStatus(int status)
{
    _utils->setScanning(false);
    // The daemon's client names only the clean files as it goes; a scan that
    // ran through scanned what the counter counted.
    if (_useClamd && (status == 0 || status == 1) && !_stopRequested)
        _scanned = std::max(_scanned, _total);
    if (_stopRequested)
        end(Result::Stopped);
    else if (status == 0)
        end(_summary.infected > 0 ? Result::Infected : Result::Clean);
    else if (status == 1)
        end(Result::Infected);
    else if (status == 2)
        end(Result::Error, QStringLiteral("the scanner reported an error (see the scan log)"));
    else
        // Only a signal ends the engine with another code: the agent's Abort
        // Scans, or someone else, killed it.
        end(Result::Stopped, QStringLiteral("the scanner was ended from outside"));
}

void OnDemandScan::end(Result result, const QString &error)
{
    const bool wasRunning = _running;
    _running = false;
    _summary.result = result;
    _summary.scanned = _scanned;
    _summary.error = error;
    _summary.milliseconds = _clock.isValid() ? _clock.elapsed() : 0;
    if (_total >= 0)
        emit progress(_scanned, std::max(_total, _scanned), QString());
    if (wasRunning && _utils && _utils->logScans()) {
        QFile log(_utils->pathToScanLog());
        if (log.open(QIODevice::Append))
            log.write(summaryText(_summary).toUtf8());
    }
    emit finished(_summary);
}

QString OnDemandScan::summaryText(const Summary &summary)
{
    static const char *const results[] = {"clean", "infected", "stopped", "error"};
    QString text;
    QTextStream out(&text);
    out << "Korvane scan summary\n";
    out << "Result: " << results[int(summary.result)];
    if (!summary.error.isEmpty())
        out << " (" << summary.error << ")";
    out << "\nFiles scanned: " << summary.scanned << "\nInfected files: " << summary.infected
        << "\nMoved into quarantine: " << summary.quarantined << "\nNot scanned: " << summary.notScanned.size() << "\n";
    for (const QString &line : summary.notScanned)
        out << "  " << line << "\n";
    // The quarantine folder is missing or cannot be written: the system log says which.
    for (const QString &file : summary.notQuarantined)
        out << "Not moved into quarantine: " << file << "\n";
    out << "Time: " << QString::number(summary.milliseconds / 1000.0, 'f', 3) << " s\n";
    return text;
}

int OnDemandScan::runFromCommandLine(const QStringList &paths, bool quarantine, bool standalone, QTextStream &out,
                                     const QList<QXUtils::EngineCandidate> &engines, QList<InfectedItem> *rows)
{
    if (paths.isEmpty()) {
        out << "Korvane: --scan needs at least one file or folder" << Qt::endl;
        return 2;
    }
    // Without a display no question can be asked and no beep sounded: a
    // file in a mail store takes the safe answer and stays where it is, and
    // a failed move is told in the summary.
    struct SafeAnswers : AlertPresenter
    {
        int runModal(const Alert &) override { return DefaultReturn; }
    } safeAnswers;
    struct Silence : SystemBeep
    {
        void play() override {}
    } silence;
    const bool graphical = qobject_cast<QApplication *>(QCoreApplication::instance()) != nullptr;
    if (!graphical) {
        AlertPresenter::setSharedPresenter(&safeAnswers);
        SystemBeep::setSharedBeep(&silence);
    }
    const auto restore = qScopeGuard([graphical] {
        if (!graphical) {
            AlertPresenter::setSharedPresenter(nullptr);
            SystemBeep::setSharedBeep(nullptr);
        }
    });
    OnDemandScan scan(engines);
    scan.setQuarantine(quarantine);
    scan.setStandalone(standalone);
    QEventLoop loop;
    Summary summary;
    connect(&scan, &OnDemandScan::foundInfection, &loop,
            [&](const QString &file, const QString &name) { out << file << ": " << name << " FOUND" << Qt::endl; });
    connect(&scan, &OnDemandScan::finished, &loop, [&](const Summary &result) {
        summary = result;
        loop.quit();
    });
    if (scan.start(paths))
        loop.exec();
    out << Qt::endl << summaryText(summary) << Qt::flush;
    if (rows)
        *rows = scan.results()->arrangedObjects();
    switch (summary.result) {
    case Result::Clean:
        return 0;
    case Result::Infected:
        return 1;
    case Result::Stopped:
        // Stopped after something was found still reports the find.
        return summary.infected > 0 ? 1 : 2;
    case Result::Error:
        return summary.infected > 0 ? 1 : 2;
    }
    return 2;
}
