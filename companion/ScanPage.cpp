#include "ScanPage.h"

#include "CompanionSettings.h"
#include "platform/Localization.h"
#include "platform/NamedImage.h"
#include "platform/UserNotificationCenter.h"
#include "platform/SystemLog.h"
#include "ui/InfectedFileActions.h"
#include "ui/InfectedItemsStore.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QAction>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QMenu>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QToolBar>
#include <QVBoxLayout>

#include <algorithm>
#include <climits>

namespace {

constexpr int refreshMs = 100;

QPushButton *button(const QString &text, const char *name)
{
    auto *b = new QPushButton(text);
    b->setObjectName(QLatin1String(name));
    return b;
}

// English needs no plural table for one and many; other languages get theirs from translations.
QString counted(qint64 count, const char *one, const char *many)
{
    return count == 1 ? ScanPage::tr(one) : ScanPage::tr(many).arg(count);
}

QString duration(qint64 milliseconds)
{
    const qint64 seconds = (milliseconds + 500) / 1000;
    if (seconds < 60)
        return counted(seconds, "1 second", "%1 seconds");
    return ScanPage::tr("%1 min %2 s").arg(seconds / 60).arg(seconds % 60);
}

} // namespace

ScanPage::ScanPage(QWidget *parent)
    : ScanPage(QXUtils::defaultEngineCandidates(), parent)
{}

ScanPage::ScanPage(const QList<QXUtils::EngineCandidate> &engines, QWidget *parent)
    : QWidget(parent)
    , _scan(new OnDemandScan(engines, this))
    , _utils(new QXUtils(nullptr, engines, this))
    , _fileActions(new InfectedFileActions(
          _scan->results(), _utils, [](const QString &text) { SystemLog::log(text); }, this))
    , _rules(this)
    , _choosePaths([](QWidget *p, bool folders) {
        if (folders) {
            const QString folder = QFileDialog::getExistingDirectory(p, tr("Choose a Folder to Scan"));
            return folder.isEmpty() ? QStringList() : QStringList{folder};
        }
        return QFileDialog::getOpenFileNames(p, tr("Choose Files to Scan"));
    })
    , _refresh(new QTimer(this))
{
    setObjectName(QStringLiteral("scanPage"));
    setAcceptDrops(true);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("Scan these files and folders (choose them or drop them here):")));
    _targets = new QListWidget;
    _targets->setObjectName(QStringLiteral("scanTargets"));
    _targets->setSelectionMode(QAbstractItemView::ExtendedSelection);
    _targets->setMaximumHeight(64);
    layout->addWidget(_targets);

    auto *buttons = new QHBoxLayout;
    QPushButton *addFiles = button(tr("Add Files…"), "addScanFiles");
    QPushButton *addFolder = button(tr("Add Folder…"), "addScanFolder");
    QPushButton *remove = button(tr("Remove"), "removeScanTarget");
    _start = button(tr("Start Scan"), "startScan");
    _stop = button(tr("Stop"), "stopScan");
    _stop->setEnabled(false);
    for (QPushButton *b : {addFiles, addFolder, remove})
        buttons->addWidget(b);
    buttons->addStretch();
    buttons->addWidget(_start);
    buttons->addWidget(_stop);
    layout->addLayout(buttons);
    connect(addFiles, &QPushButton::clicked, this, [this] { choose(false); });
    connect(addFolder, &QPushButton::clicked, this, [this] { choose(true); });
    connect(remove, &QPushButton::clicked, this, [this] { qDeleteAll(_targets->selectedItems()); });
    connect(_start, &QPushButton::clicked, this, &ScanPage::start);
    connect(_stop, &QPushButton::clicked, this, &ScanPage::stop);

    _progress = new QProgressBar;
    _progress->setObjectName(QStringLiteral("scanProgress"));
    _progress->setRange(0, 1);
    _progress->setValue(0);
    _progress->setFormat(QString());
    layout->addWidget(_progress);
    auto *status = new QHBoxLayout;
    _currentFile = new QLabel;
    _currentFile->setObjectName(QStringLiteral("scanCurrentFile"));
    // A long path must not widen the window.
    _currentFile->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    _currentFile->setTextInteractionFlags(Qt::TextSelectableByMouse);
    _infectedCount = new QLabel;
    _infectedCount->setObjectName(QStringLiteral("scanInfectedCount"));
    status->addWidget(_currentFile, 1);
    status->addSpacing(12);
    status->addWidget(_infectedCount);
    layout->addLayout(status);
    _summary = new QLabel;
    _summary->setObjectName(QStringLiteral("scanSummary"));
    _summary->setWordWrap(true);
    _summary->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(_summary);

    // The agent's own list window, held as a part of the page.
    _resultsView = new InfectedItemsWindow(_scan->results(), this);
    _resultsView->setWindowFlags(Qt::Widget);
    _resultsView->setObjectName(QStringLiteral("scanResults"));
    _resultsView->setMinimumHeight(170);
    _scan->results()->setColumnTitles(
        {Localization::text("FILENAME"), Localization::text("INFECTION_NAME"), Localization::text("STATUS")});
    layout->addWidget(_resultsView, 1);

    InfectedFileActions *actions = _fileActions;
    addAction(Localization::text("TOOLBAR_REVEAL"), "revealInFinder:", [actions] { actions->revealInFinder(); });
    addAction(Localization::text("TOOLBAR_QUARANTINE"), "quarantineFile:", [actions] { actions->quarantineFile(); });
    addAction(Localization::text("TOOLBAR_DELETE"), "deleteFile:", [actions] { actions->deleteFile(); });
    addAction(Localization::text("PUT_BACK"), "putBack:", [actions] { actions->putBack(); });
    addAction(Localization::text("COPY"), "copy:", [this] { _resultsView->tableView()->copy(); });
    QXTTableView *table = _resultsView->tableView();
    table->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(table, &QWidget::customContextMenuRequested, this, [this, table](const QPoint &at) {
        validateActions();
        QMenu menu;
        menu.addActions(_actions);
        menu.exec(table->viewport()->mapToGlobal(at));
    });
    QXTInfectedViewArrayController *rows = _scan->results();
    connect(rows, &QAbstractItemModel::rowsInserted, this, &ScanPage::validateActions);
    connect(rows, &QAbstractItemModel::rowsRemoved, this, &ScanPage::validateActions);
    connect(rows, &QAbstractItemModel::dataChanged, this, &ScanPage::validateActions);
    connect(rows, &QAbstractItemModel::modelReset, this, &ScanPage::validateActions);
    connect(table->selectionModel(), &QItemSelectionModel::selectionChanged, this, &ScanPage::validateActions);
    validateActions();

    _refresh->setInterval(refreshMs);
    connect(_refresh, &QTimer::timeout, this, &ScanPage::showProgress);
    connect(_scan, &OnDemandScan::progress, this, [this](qint64 scanned, qint64 total, const QString &file) {
        _scanned = scanned;
        _total = total;
        if (!file.isEmpty())
            _file = file;
    });
    connect(_scan, &OnDemandScan::finished, this, &ScanPage::scanFinished);
}

ScanPage::~ScanPage()
{
    if (_store)
        _store->flush();
    // The scan's reports must not reach a page that is half gone.
    _scan->disconnect(this);
    _scan->stop();
}

QAction *ScanPage::addAction(const QString &text, const char *operation, std::function<void()> run)
{
    auto *item = new QAction(text, this);
    item->setData(QString::fromLatin1(operation));
    item->setObjectName(QString::fromLatin1(operation).chopped(1));
    connect(item, &QAction::triggered, this, [this, run] {
        run();
        validateActions();
    });
    _resultsView->toolbar()->addAction(item);
    _actions << item;
    return item;
}

void ScanPage::validateActions()
{
    const bool selected = !_scan->results()->selectionIndexes().isEmpty();
    for (QAction *item : std::as_const(_actions)) {
        const QString operation = item->data().toString();
        // The table's copy rule asks for its focus, which a toolbar click takes away.
        item->setEnabled(selected && (operation == QLatin1String("copy:") || _rules.validateMenuItem(item)));
    }
}

void ScanPage::addTargets(const QStringList &paths)
{
    for (const QString &path : paths) {
        const QString clean = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
        if (!path.isEmpty() && targets().indexOf(clean) < 0)
            _targets->addItem(clean);
    }
}

QStringList ScanPage::targets() const
{
    QStringList paths;
    for (int row = 0; row < _targets->count(); ++row)
        paths << _targets->item(row)->text();
    return paths;
}

void ScanPage::clearTargets()
{
    _targets->clear();
}

void ScanPage::choose(bool folders)
{
    addTargets(_choosePaths(this, folders));
}

void ScanPage::dragEnterEvent(QDragEnterEvent *event)
{
    const QList<QUrl> urls = event->mimeData()->urls();
    if (!urls.isEmpty() && std::all_of(urls.begin(), urls.end(), [](const QUrl &url) { return url.isLocalFile(); }))
        event->acceptProposedAction();
}

void ScanPage::dropEvent(QDropEvent *event)
{
    QStringList paths;
    for (const QUrl &url : event->mimeData()->urls())
        paths << url.toLocalFile();
    addTargets(paths);
    event->acceptProposedAction();
}

bool ScanPage::start()
{
    if (_scan->running())
        return false;
    const QStringList paths = targets();
    if (paths.isEmpty()) {
        _summary->setText(tr("Choose files or folders to scan first."));
        return false;
    }
    // Rows read from a file stay in it; the new scan's rows are not written there.
    if (_store) {
        _store->flush();
        delete _store;
        _store = nullptr;
        _fileActions->setJournal(nullptr);
    }
    _scan->results()->removeAllObjects();
    // The saved setting, not an edit not saved yet on another tab.
    _scan->setQuarantine(CompanionSettings().value(QStringLiteral("QuarantineInfected")).toBool());
    _scanned = 0;
    _total = -1;
    _file.clear();
    _summary->clear();
    _start->setEnabled(false);
    _stop->setEnabled(true);
    _refresh->start();
    showProgress();
    // A missing path ends the scan at once, through finished().
    return _scan->start(paths);
}

bool ScanPage::showResults(const QString &path)
{
    if (_scan->running() || !QFileInfo(path).isFile()) {
        _summary->setText(tr("No scan results in %1.").arg(path));
        return false;
    }
    delete _store;
    _scan->results()->removeAllObjects();
    _store = new InfectedItemsStore(_scan->results(), path, this);
    _fileActions->setJournal(_store->journal());
    _summary->setText(counted(_scan->results()->rowCount(), "1 infected file found by the scan of %2.",
                              "%1 infected files found by the scan of %2.")
                          .arg(QLocale().toString(QFileInfo(path).lastModified(), QLocale::ShortFormat)));
    showProgress();
    return true;
}

void ScanPage::stop()
{
    _scan->stop();
}

void ScanPage::showProgress()
{
    if (_total < 0 && _scan->running()) {
        // Counting: a busy bar until the total is known.
        _progress->setRange(0, 0);
        _progress->setFormat(counted(_scanned, "1 file scanned", "%1 files scanned"));
    } else {
        // Files added while the scan runs raise the total, never overflow the bar.
        const qint64 total = std::max({_total, _scanned, qint64(0)});
        const qint64 scale = total > INT_MAX ? total / INT_MAX + 1 : 1;
        // An empty range would make the bar busy; an empty folder scanned to the end is full.
        const bool emptyAndDone = total == 0 && _total == 0 && !_scan->running();
        _progress->setRange(0, int(std::max<qint64>(1, total / scale)));
        _progress->setValue(emptyAndDone ? 1 : int(std::min(_scanned, total) / scale));
        _progress->setFormat(_total < 0 ? counted(_scanned, "1 file scanned", "%1 files scanned")
                                        : tr("%1 of %2 files").arg(_scanned).arg(total));
    }
    // Elided in the middle, so that both the folder and the file's name show.
    const QString scanning = _file.isEmpty() ? QString() : tr("Scanning %1").arg(_file);
    _currentFile->setText(_currentFile->fontMetrics().elidedText(scanning, Qt::ElideMiddle, _currentFile->width()));
    _currentFile->setToolTip(scanning);
    _infectedCount->setText(tr("%1 infected").arg(_scan->results()->rowCount()));
}

void ScanPage::scanFinished(const OnDemandScan::Summary &summary)
{
    _refresh->stop();
    _file.clear();
    if (summary.result != OnDemandScan::Result::Stopped && summary.result != OnDemandScan::Result::Error)
        _total = std::max(_total, summary.scanned);
    _scanned = summary.scanned;
    showProgress();
    _start->setEnabled(true);
    _stop->setEnabled(false);

    QString headline;
    switch (summary.result) {
    case OnDemandScan::Result::Clean:
        headline = tr("No infected files were found.");
        break;
    case OnDemandScan::Result::Infected:
        headline = counted(summary.infected, "1 infected file found.", "%1 infected files found.");
        break;
    case OnDemandScan::Result::Stopped:
        headline = summary.infected > 0
                       ? counted(summary.infected, "The scan was stopped after 1 infected file was found.",
                                 "The scan was stopped after %1 infected files were found.")
                       : tr("The scan was stopped; what was not scanned yet may still be infected.");
        break;
    case OnDemandScan::Result::Error:
        headline = tr("The scan failed: %1.").arg(summary.error);
        break;
    }
    QStringList lines{headline, tr("Files scanned: %1. Infected: %2. Not scanned: %3. Time: %4.")
                                    .arg(summary.scanned)
                                    .arg(summary.infected)
                                    .arg(summary.notScanned.size())
                                    .arg(duration(summary.milliseconds))};
    if (summary.result == OnDemandScan::Result::Stopped && !summary.error.isEmpty())
        lines << tr("Why it stopped: %1.").arg(summary.error);
    for (const QString &why : summary.notScanned)
        lines << tr("Not scanned: %1").arg(why);
    for (const QString &file : summary.notQuarantined)
        lines << tr("Not moved into quarantine: %1").arg(file);
    _summary->setText(lines.join(QLatin1Char('\n')));

    // Someone who looks at the page sees the end; someone elsewhere is told,
    // unless they stopped the scan themselves.
    const bool stoppedByUser = summary.result == OnDemandScan::Result::Stopped && summary.error.isEmpty();
    if (!window()->isActiveWindow() && !stoppedByUser) {
        UserNotificationCenter *center = UserNotificationCenter::defaultCenter();
        center->deliverNotification(tr("Korvane scan finished"), headline);
        connect(center, &UserNotificationCenter::activated, this, &ScanPage::showRequested, Qt::UniqueConnection);
    }
    emit finished(summary);
}
