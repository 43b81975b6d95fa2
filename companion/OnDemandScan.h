#pragma once

#include "Tarnlib/Tarnlib/QXUtils.h"
#include "Tarnlib/Tarnlib/QXUtilsDelegate.h"
#include "ui/InfectedItem.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QStringList>

class InfectedFileActions;
class QTextStream;
class QXTInfectedViewArrayController;

// One scan the user asked for: a coordinator of its own with progress
// reports, the file counter's total beside it, the daemon's client or the
// stand-alone scanner, and a row per infected file in a list that the
// agent's file actions work on.
class OnDemandScan : public QObject, public QXUtilsDelegate
{
    Q_OBJECT
public:
    enum class Result { Clean, Infected, Stopped, Error };

    struct Summary
    {
        Result result = Result::Clean;
        qint64 scanned = 0;
        int infected = 0;
        int quarantined = 0;
        // The infected files that could not be moved into quarantine.
        QStringList notQuarantined;
        // "<path>: <why>" for each path or file left unscanned.
        QStringList notScanned;
        qint64 milliseconds = 0;
        // Why the scan could not run or ended in error.
        QString error;
    };

    explicit OnDemandScan(QObject *parent = nullptr);
    // Tests hand their own engine so they never depend on what is installed.
    OnDemandScan(const QList<QXUtils::EngineCandidate> &engines, QObject *parent = nullptr);
    ~OnDemandScan() override;

    // The stand-alone scanner instead of the daemon; the setting
    // "ScanWithoutDaemon" asks for it too.
    void setStandalone(bool standalone) { _standalone = standalone; }
    // Moves each infected file into the quarantine folder of the settings.
    void setQuarantine(bool quarantine) { _quarantine = quarantine; }

    // Answers false, with finished() already sent, when a path is missing.
    bool start(const QStringList &paths);
    void stop();
    bool running() const { return _running; }
    bool usedDaemon() const { return _useClamd; }
    QXTInfectedViewArrayController *results() const { return _results; }
    InfectedFileActions *actions() const { return _actions; }

    // The command line: scans, prints a line per infected file and a
    // summary, and answers the exit code (0 clean, 1 infected, 2 error);
    // rows, when given, takes the infected files' rows.
    static int runFromCommandLine(const QStringList &paths, bool quarantine, bool standalone, QTextStream &out,
                                  const QList<QXUtils::EngineCandidate> &engines = QXUtils::defaultEngineCandidates(),
                                  QList<InfectedItem> *rows = nullptr);
    static QString summaryText(const Summary &summary);

signals:
    void progress(qint64 scanned, qint64 total, const QString &currentFile);
    void foundInfection(const QString &file, const QString &infectionName);
    void finished(const OnDemandScan::Summary &summary);

protected:
    // QXUtilsDelegate.
    bool respondsTo(Optional optional) const override;
    bool useClamd() override { return _useClamd; }
    bool wantScanStatusUpdates() override { return true; }
    bool wantUpdatePercentages() override { return false; }
    void scanStarted() override {}
    void scanFinishedWithStatus(int status) override;
    void scanCrashed(const QString &reason) override;
    void infectionFound(const QString &infectionName, const QString &inFile) override;
    void updateProgressBarWithCountOfFilesScannedSoFar(quint32 count) override;
    void engineNotFound() override;
    void engineFoundWithVersionString(const QString &version) override;
    void updateStarted() override {}
    void updateFinishedWithStatus(int) override {}
    void updateProgressWithMessage(const QString &message) override;
    void updateProgressWithPercentDone(double) override {}
    void fileCounterReturned(qint64 count) override;
    void needToUpdateDB() override;
    void needToUpdateEngineDisplayVersionString(const QString &version) override;
    void clamdStarted() override { beginScan(); }
    void clamdAlreadyRunning() override { beginScan(); }
    void clamdFailedToStart() override;
    void savedSearchCutAtPath(const QString &path, qint64 entries) override;

private:
    void makeCoordinator();
    void beginScan();
    void end(Result result, const QString &error = {});

    QList<QXUtils::EngineCandidate> _engines;
    QXUtils *_utils = nullptr;
    QXTInfectedViewArrayController *_results;
    InfectedFileActions *_actions;
    bool _standalone = false;
    bool _useClamd = true;
    bool _quarantine = false;
    bool _running = false;
    bool _scanBegun = false;
    bool _stopRequested = false;
    QStringList _paths;
    qint64 _total = -1;
    qint64 _scanned = 0;
    QString _currentFile;
    Summary _summary;
    QElapsedTimer _clock;
};

Q_DECLARE_METATYPE(OnDemandScan::Summary)
