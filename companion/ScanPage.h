#pragma once

#include "OnDemandScan.h"
#include "ui/EnablingRules.h"
#include "ui/EnablingRulesDelegate.h"

#include <QElapsedTimer>
#include <QWidget>

#include <functional>

class InfectedFileActions;
class InfectedItemsStore;
class InfectedItemsWindow;
class QAction;
class QLabel;
class QListWidget;
class QProgressBar;
class QPushButton;
class QTimer;

// Korvane's Scan page: the files and folders to scan (chosen or dropped),
// Start and Stop, a progress bar against the file counter's total, and the
// infected files as rows that the agent's own list actions work on.
class ScanPage : public QWidget, private EnablingRulesDelegate
{
    Q_OBJECT
public:
    // Answers the chosen paths, or none when the dialog was cancelled.
    using PathChooser = std::function<QStringList(QWidget *parent, bool folders)>;

    explicit ScanPage(QWidget *parent = nullptr);
    // Tests hand their own engine so they never depend on what is installed.
    explicit ScanPage(const QList<QXUtils::EngineCandidate> &engines, QWidget *parent = nullptr);
    ~ScanPage() override;

    void setPathChooser(PathChooser chooser) { _choosePaths = std::move(chooser); }

    void addTargets(const QStringList &paths);
    QStringList targets() const;
    void clearTargets();
    // Scans the listed targets; answers false, with the reason on the page,
    // when nothing can be scanned.
    bool start();
    void stop();
    bool running() const { return _scan->running(); }
    OnDemandScan *scan() const { return _scan; }
    InfectedItemsWindow *resultsView() const { return _resultsView; }
    // Lists the rows kept in path by a scan that ran without a window; the
    // actions taken on them are written back there.
    bool showResults(const QString &path);

signals:
    void finished(const OnDemandScan::Summary &summary);
    // The user clicked the notification of the end.
    void showRequested();

protected:
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dropEvent(QDropEvent *event) override;

private:
    // EnablingRulesDelegate: the rows' actions follow the agent's rules.
    bool startingUp() const override { return false; }
    bool watching() const override { return false; }
    QXUtils *utils() override { return _utils; }
    InfectedItemsWindow *infectionListWindow() const override { return _resultsView; }

    void choose(bool folders);
    void showProgress();
    void scanFinished(const OnDemandScan::Summary &summary);
    void validateActions();
    QAction *addAction(const QString &text, const char *operation, std::function<void()> run);

    OnDemandScan *_scan;
    // The rows' own coordinator and actions, so that rows read from a file
    // can be acted on before any scan ran.
    QXUtils *_utils;
    InfectedFileActions *_fileActions;
    InfectedItemsStore *_store = nullptr;
    EnablingRules _rules;
    PathChooser _choosePaths;
    QListWidget *_targets;
    QPushButton *_start;
    QPushButton *_stop;
    QProgressBar *_progress;
    QLabel *_currentFile;
    QLabel *_infectedCount;
    QLabel *_summary;
    InfectedItemsWindow *_resultsView;
    QList<QAction *> _actions;
    // Reports can come thousands a second: the widgets show the latest at
    // most every tick.
    QTimer *_refresh;
    qint64 _scanned = 0;
    qint64 _total = -1;
    QString _file;
};
