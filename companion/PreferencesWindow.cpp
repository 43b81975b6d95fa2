#include "PreferencesWindow.h"

#include "CompanionApplication.h"
#include "CompanionSettings.h"
#include "LoginItem.h"
#include "NautilusScript.h"
#include "ScanPage.h"
#include "ScheduledScan.h"
#include "platform/AgentStatusService.h"
#include "platform/AlertPresenter.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QCloseEvent>
#include <QKeyEvent>
#include <QSpinBox>
#include <QTabWidget>
#include <QTableWidget>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

namespace {

enum ExclusionColumn { EnabledColumn, PatternColumn, RegExColumn, CommentColumn };

constexpr int defaultRotateKilobytes = 5120;

QCheckBox *checkBox(const QString &text, const char *name)
{
    auto *box = new QCheckBox(text);
    box->setObjectName(QLatin1String(name));
    return box;
}

QPushButton *button(const QString &text, const char *name)
{
    auto *b = new QPushButton(text);
    b->setObjectName(QLatin1String(name));
    return b;
}

QTableWidgetItem *checkItem(bool checked)
{
    auto *item = new QTableWidgetItem;
    item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
    item->setCheckState(checked ? Qt::Checked : Qt::Unchecked);
    return item;
}

} // namespace

PreferencesWindow::PreferencesWindow(CompanionSettings *settings, const QString &agentProgram, QWidget *parent)
    : PreferencesWindow(settings, agentProgram, QXUtils::defaultEngineCandidates(), parent)
{}

PreferencesWindow::PreferencesWindow(CompanionSettings *settings, const QString &agentProgram,
                                     const QList<QXUtils::EngineCandidate> &engines, QWidget *parent)
    : QWidget(parent)
    , _settings(settings)
    , _scanPage(new ScanPage(engines))
    , _agentProgram(agentProgram)
    , _chooseFolder([](QWidget *p, const QString &title, const QString &start) {
        return QFileDialog::getExistingDirectory(p, title, start);
    })
{
    setObjectName(QStringLiteral("PreferencesWindow"));
    setWindowTitle(tr("Korvane Preferences"));
    _tabs = new QTabWidget;
    _tabs->setObjectName(QStringLiteral("tabs"));
    _tabs->addTab(foldersPage(), tr("Folders"));
    _tabs->addTab(exclusionsPage(), tr("Exclusions"));
    _tabs->addTab(scanningPage(), tr("Scanning"));
    _tabs->addTab(schedulePage(), tr("Schedule"));
    _tabs->addTab(_scanPage, tr("Scan"));
    connect(_scanPage, &ScanPage::showRequested, this, [this] { showScan({}); });

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(protectionStatusLabel());
    layout->addWidget(_tabs);
    _buttons = buttonBox();
    layout->addWidget(_buttons);
    // Save and Revert belong to the settings, not to a scan.
    connect(_tabs, &QTabWidget::currentChanged, this, [this] {
        const bool settings = _tabs->currentWidget() != _scanPage;
        _buttons->button(QDialogButtonBox::Save)->setVisible(settings);
        _buttons->button(QDialogButtonBox::Reset)->setVisible(settings);
    });

    resize(620, 440);
    load();
}

void PreferencesWindow::keyPressEvent(QKeyEvent *event)
{
    // As in a dialog; unsaved edits are dropped, as with Close, since the
    // window reads the settings again when it is shown.
    if (event->matches(QKeySequence::Cancel)) {
        close();
        event->accept();
    }
    else
        QWidget::keyPressEvent(event);
}

bool PreferencesWindow::mayClose()
{
    if (!_scanPage->running())
        return true;
    // Escape answers the default button, so a stray key keeps the scan.
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {tr("A scan is running. Stop it and close the window?"), tr("Keep Scanning"), tr("Stop Scan"), QString(),
         tr("Files not scanned yet may be infected.")});
    if (answer != AlertPresenter::AlternateReturn)
        return false;
    _scanPage->stop();
    return true;
}

void PreferencesWindow::closeEvent(QCloseEvent *event)
{
    if (!mayClose()) {
        event->ignore();
        return;
    }
    // A refused save leaves its edits in the settings' buffer, where the
    // next save would write them unseen.
    _settings->revert();
    QWidget::closeEvent(event);
}

QWidget *PreferencesWindow::foldersPage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    layout->addWidget(new QLabel(tr("KorvaneVarden scans new and changed files in these folders:")));
    _folders = new QListWidget;
    _folders->setObjectName(QStringLiteral("folders"));
    layout->addWidget(_folders);
    auto *buttons = new QHBoxLayout;
    QPushButton *addFolderButton = button(tr("Add…"), "addFolder");
    QPushButton *removeFolderButton = button(tr("Remove"), "removeFolder");
    QPushButton *upButton = button(tr("Move Up"), "moveFolderUp");
    QPushButton *downButton = button(tr("Move Down"), "moveFolderDown");
    for (QPushButton *b : {addFolderButton, removeFolderButton, upButton, downButton})
        buttons->addWidget(b);
    buttons->addStretch();
    layout->addLayout(buttons);
    connect(addFolderButton, &QPushButton::clicked, this, &PreferencesWindow::addFolder);
    connect(removeFolderButton, &QPushButton::clicked, this, &PreferencesWindow::removeFolder);
    connect(upButton, &QPushButton::clicked, this, [this] { moveFolder(-1); });
    connect(downButton, &QPushButton::clicked, this, [this] { moveFolder(1); });
    return page;
}

QWidget *PreferencesWindow::exclusionsPage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    auto *note = new QLabel(tr("Paths that match an enabled pattern are never scanned. Text matches "
                               "anywhere, ignoring case; a regular expression must match the whole path."));
    note->setWordWrap(true);
    layout->addWidget(note);
    _exclusions = new QTableWidget(0, 4);
    _exclusions->setObjectName(QStringLiteral("exclusions"));
    _exclusions->setHorizontalHeaderLabels({tr("On"), tr("Pattern"), tr("Regular Expression"), tr("Comment")});
    _exclusions->verticalHeader()->hide();
    _exclusions->horizontalHeader()->setSectionResizeMode(PatternColumn, QHeaderView::Stretch);
    _exclusions->horizontalHeader()->setSectionResizeMode(CommentColumn, QHeaderView::Stretch);
    _exclusions->horizontalHeader()->setSectionResizeMode(EnabledColumn, QHeaderView::ResizeToContents);
    _exclusions->horizontalHeader()->setSectionResizeMode(RegExColumn, QHeaderView::ResizeToContents);
    _exclusions->setSelectionBehavior(QAbstractItemView::SelectRows);
    layout->addWidget(_exclusions);
    auto *buttons = new QHBoxLayout;
    QPushButton *addExclusionButton = button(tr("Add"), "addExclusion");
    QPushButton *removeExclusionButton = button(tr("Remove"), "removeExclusion");
    buttons->addWidget(addExclusionButton);
    buttons->addWidget(removeExclusionButton);
    buttons->addStretch();
    layout->addLayout(buttons);
    connect(addExclusionButton, &QPushButton::clicked, this, &PreferencesWindow::addExclusion);
    connect(removeExclusionButton, &QPushButton::clicked, this, &PreferencesWindow::removeExclusion);
    return page;
}

QWidget *PreferencesWindow::scanningPage()
{
    auto *page = new QWidget;
    auto *form = new QFormLayout(page);
    _scanEmail = checkBox(tr("Scan the mail programs' folders"), "ScanEmail");
    _quarantineInfected = checkBox(tr("Move infected files into the quarantine folder"), "QuarantineInfected");
    _quarantineFolder = new QLineEdit;
    _quarantineFolder->setObjectName(QStringLiteral("QuarantineFolder"));
    _quarantineFolder->setPlaceholderText(tr("none"));
    auto *quarantineRow = new QHBoxLayout;
    quarantineRow->addWidget(_quarantineFolder);
    QPushButton *chooseQuarantine = button(tr("Choose…"), "chooseQuarantineFolder");
    quarantineRow->addWidget(chooseQuarantine);
    connect(chooseQuarantine, &QPushButton::clicked, this, &PreferencesWindow::chooseQuarantineFolder);
    _logScans = checkBox(tr("Keep a scan log"), "LogScans");
    _suppressSummary = checkBox(tr("Leave the summary out of the scan log"), "SuppressSummary");
    _additionalArgs = new QLineEdit;
    _additionalArgs->setObjectName(QStringLiteral("AdditionalCmdLineArgs"));
    _additionalArgs->setPlaceholderText(tr("none"));
    _rotateSize = new QSpinBox;
    _rotateSize->setObjectName(QStringLiteral("rotateScanlogWhenSizeReaches"));
    _rotateSize->setRange(1, 1024 * 1024);
    _rotateSize->setSuffix(tr(" KB"));
    _logUpdates = checkBox(tr("Keep an update log"), "LogUpdates");
    _updateDefsOnLaunch = checkBox(tr("Update the virus definitions when KorvaneVarden starts"), "UpdateDefsOnLaunch");
    _automaticChecks = checkBox(tr("Check for new versions of Korvane"), "SUEnableAutomaticChecks");
    _startAtLogin = checkBox(tr("Start KorvaneVarden when I log in"), "startAtLogin");
    _nautilusScript = checkBox(tr("Offer “Scan with Korvane” in the Scripts menu of Files"), "nautilusScript");
    form->addRow(_startAtLogin);
    form->addRow(_nautilusScript);
    form->addRow(_scanEmail);
    form->addRow(_quarantineInfected);
    form->addRow(tr("Quarantine folder:"), quarantineRow);
    form->addRow(_logScans);
    form->addRow(_suppressSummary);
    auto *rotateRow = new QHBoxLayout;
    rotateRow->addWidget(_rotateSize);
    rotateRow->addStretch();
    form->addRow(tr("Rotate the scan log at:"), rotateRow);
    form->addRow(tr("More scanner arguments:"), _additionalArgs);
    form->addRow(_logUpdates);
    form->addRow(_updateDefsOnLaunch);
    _rescanAfterUpdate = checkBox(tr("Scan files found clean again after each definitions update"), "RescanAfterUpdate");
    _rescanDays = new QSpinBox;
    _rescanDays->setObjectName(QStringLiteral("RescanJournalDays"));
    _rescanDays->setRange(1, 365);
    _rescanDays->setSuffix(tr(" days"));
    form->addRow(_rescanAfterUpdate);
    form->addRow(tr("Remember clean files for:"), _rescanDays);
    connect(_rescanAfterUpdate, &QCheckBox::toggled, _rescanDays, &QWidget::setEnabled);
    form->addRow(_automaticChecks);
    return page;
}

QWidget *PreferencesWindow::schedulePage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    _scheduleEnabled = checkBox(tr("Scan these folders on a schedule:"), "ScheduledScanEnabled");
    layout->addWidget(_scheduleEnabled);
    _scheduledFolders = new QListWidget;
    _scheduledFolders->setObjectName(QStringLiteral("ScheduledScanFolders"));
    layout->addWidget(_scheduledFolders);
    auto *buttons = new QHBoxLayout;
    QPushButton *addButton = button(tr("Add…"), "addScheduledFolder");
    QPushButton *removeButton = button(tr("Remove"), "removeScheduledFolder");
    buttons->addWidget(addButton);
    buttons->addWidget(removeButton);
    buttons->addStretch();
    layout->addLayout(buttons);
    connect(addButton, &QPushButton::clicked, this, &PreferencesWindow::addScheduledFolder);
    connect(removeButton, &QPushButton::clicked, this,
            [this] { delete _scheduledFolders->takeItem(_scheduledFolders->currentRow()); });

    auto *when = new QHBoxLayout;
    _scheduleWeekday = new QComboBox;
    _scheduleWeekday->setObjectName(QStringLiteral("ScheduledScanWeekday"));
    _scheduleWeekday->addItems({tr("Every day"), tr("Every Monday"), tr("Every Tuesday"), tr("Every Wednesday"),
                                tr("Every Thursday"), tr("Every Friday"), tr("Every Saturday"), tr("Every Sunday")});
    _scheduleHour = new QSpinBox;
    _scheduleHour->setObjectName(QStringLiteral("ScheduledScanHour"));
    _scheduleHour->setRange(0, 23);
    _scheduleHour->setPrefix(tr("at "));
    _scheduleHour->setSuffix(tr(":00"));
    when->addWidget(_scheduleWeekday);
    when->addWidget(_scheduleHour);
    when->addStretch();
    layout->addLayout(when);
    auto *note = new QLabel(tr("The scan is skipped while the computer runs on battery power; one missed while it "
                               "was off runs when it next starts. Results go to Korvane's scan log, and a notification "
                               "tells when something is found; a click on it shows what."));
    note->setWordWrap(true);
    layout->addWidget(note);
    return page;
}

QDialogButtonBox *PreferencesWindow::buttonBox()
{
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Reset | QDialogButtonBox::Close);
    buttons->button(QDialogButtonBox::Reset)->setText(tr("Revert"));
    buttons->button(QDialogButtonBox::Save)->setObjectName(QStringLiteral("save"));
    buttons->button(QDialogButtonBox::Reset)->setObjectName(QStringLiteral("revert"));
    connect(buttons->button(QDialogButtonBox::Save), &QPushButton::clicked, this, &PreferencesWindow::save);
    connect(buttons->button(QDialogButtonBox::Reset), &QPushButton::clicked, this, [this] {
        _settings->revert();
        load();
    });
    connect(buttons, &QDialogButtonBox::rejected, this, &QWidget::close);
    return buttons;
}

QLabel *PreferencesWindow::protectionStatusLabel()
{
    _protectionStatus = new QLabel;
    _protectionStatus->setObjectName(QStringLiteral("protectionStatus"));
    _protectionStatus->setWordWrap(true);
    _protectionStatus->setTextFormat(Qt::RichText);
    // The guard changes by itself.
    _statusTimer = new QTimer(this);
    _statusTimer->setInterval(5000);
    connect(_statusTimer, &QTimer::timeout, this, &PreferencesWindow::askProtectionStatus);
    _statusTimer->start();
    askProtectionStatus();
    return _protectionStatus;
}

void PreferencesWindow::askProtectionStatus()
{
    AgentStatusService::askLater(this, [this](std::optional<AgentStatusService::Answer> answer) {
        const QString level = answer ? answer->level : QStringLiteral("off");
        const QStringList reasons = answer ? answer->reasons : QStringList{tr("KorvaneVarden does not run.")};
        const char *colour = level == QLatin1String("protected") ? "#18a88e"
                             : level == QLatin1String("partial") ? "#b87800"
                                                                 : "#d62c2c";
        const QString title = level == QLatin1String("protected") ? tr("Protected")
                              : level == QLatin1String("partial") ? tr("Partly protected")
                                                                  : tr("Protection is off");
        QString text = QStringLiteral("<b style=\"color:%1\">%2</b>").arg(QLatin1String(colour), title);
        for (const QString &reason : reasons)
            text += QStringLiteral("<br>• ") + reason.toHtmlEscaped();
        _protectionStatus->setText(text);
    });
}

void PreferencesWindow::setFolderChooser(FolderChooser chooser)
{
    _chooseFolder = std::move(chooser);
}

void PreferencesWindow::load()
{
    _folders->clear();
    _folders->addItems(_settings->watchedFolders());

    const QVariantList records = _settings->exclusionRecords();
    _exclusions->setRowCount(0);
    for (const QVariant &entry : records) {
        const QVariantMap record = entry.toMap();
        const int row = _exclusions->rowCount();
        _exclusions->insertRow(row);
        _exclusions->setItem(row, EnabledColumn, checkItem(record.value(QStringLiteral("excludeEnabled")).toBool()));
        _exclusions->setItem(row, PatternColumn,
                             new QTableWidgetItem(record.value(QStringLiteral("excludePattern")).toString()));
        _exclusions->setItem(row, RegExColumn, checkItem(record.value(QStringLiteral("excludeRegEx")).toBool()));
        _exclusions->setItem(row, CommentColumn,
                             new QTableWidgetItem(record.value(QStringLiteral("excludeComments")).toString()));
    }

    const auto flag = [this](const char *key) { return _settings->value(QLatin1String(key)).toBool(); };
    _scanEmail->setChecked(flag("ScanEmail"));
    _quarantineInfected->setChecked(flag("QuarantineInfected"));
    const QVariant quarantine = _settings->value(QStringLiteral("QuarantineFolder"));
    _quarantineFolder->setText(quarantine.typeId() == QMetaType::QVariantMap
                                   ? quarantine.toMap().value(QStringLiteral("path")).toString()
                                   : quarantine.toString());
    _logScans->setChecked(flag("LogScans"));
    _suppressSummary->setChecked(flag("SuppressSummary"));
    _additionalArgs->setText(_settings->value(QStringLiteral("AdditionalCmdLineArgs")).toString());
    _logUpdates->setChecked(flag("LogUpdates"));
    _updateDefsOnLaunch->setChecked(flag("UpdateDefsOnLaunch"));
    _rescanAfterUpdate->setChecked(flag("RescanAfterUpdate"));
    bool isNumber = false;
    const int rescanDays = _settings->value(QStringLiteral("RescanJournalDays")).toInt(&isNumber);
    _rescanDays->setValue(isNumber && rescanDays > 0 ? rescanDays : 14);
    _rescanDays->setEnabled(_rescanAfterUpdate->isChecked());
    const int rotate = _settings->value(QStringLiteral("rotateScanlogWhenSizeReaches")).toInt(&isNumber);
    _rotateSize->setValue(isNumber && rotate > 0 ? rotate : defaultRotateKilobytes);
    _automaticChecks->setChecked(flag("SUEnableAutomaticChecks"));
    _startAtLogin->setChecked(LoginItem::isEnabled());
    _nautilusScript->setChecked(NautilusScript::isEnabled());

    const ScheduledScan::Schedule schedule = _settings->scheduledScan();
    _scheduleEnabled->setChecked(schedule.enabled);
    _scheduledFolders->clear();
    _scheduledFolders->addItems(schedule.folders);
    _scheduleWeekday->setCurrentIndex(std::clamp(schedule.weekday, 0, 7));
    _scheduleHour->setValue(schedule.hour);
}

bool PreferencesWindow::save()
{
    QStringList folders;
    for (int i = 0; i < _folders->count(); ++i)
        folders << _folders->item(i)->text();

    QVariantList records;
    for (int row = 0; row < _exclusions->rowCount(); ++row) {
        const auto text = [&](int column) {
            const QTableWidgetItem *item = _exclusions->item(row, column);
            return item ? item->text().trimmed() : QString();
        };
        const auto checked = [&](int column) {
            const QTableWidgetItem *item = _exclusions->item(row, column);
            return item && item->checkState() == Qt::Checked;
        };
        // A row left without a pattern is taken as not wanted.
        if (text(PatternColumn).isEmpty())
            continue;
        records << QVariantMap{{QStringLiteral("excludePattern"), text(PatternColumn)},
                               {QStringLiteral("excludeEnabled"), checked(EnabledColumn)},
                               {QStringLiteral("excludeRegEx"), checked(RegExColumn)},
                               {QStringLiteral("excludeComments"), text(CommentColumn)}};
    }
    QString problem;
    if (!_settings->setExclusionRecords(records, &problem)) {
        complain(tr("This exclusion cannot be saved."), problem);
        return false;
    }
    ScheduledScan::Schedule schedule;
    schedule.enabled = _scheduleEnabled->isChecked();
    for (int i = 0; i < _scheduledFolders->count(); ++i)
        schedule.folders << _scheduledFolders->item(i)->text();
    schedule.weekday = _scheduleWeekday->currentIndex();
    schedule.hour = _scheduleHour->value();
    if (!_settings->setScheduledScan(schedule, &problem)) {
        complain(tr("The scheduled scan cannot be saved."), problem);
        return false;
    }
    const QString quarantine = _quarantineFolder->text().trimmed();

    _settings->setWatchedFolders(folders);
    _settings->setValue(QStringLiteral("ScanEmail"), _scanEmail->isChecked());
    _settings->setValue(QStringLiteral("QuarantineInfected"), _quarantineInfected->isChecked());
    if (quarantine.isEmpty())
        _settings->removeValue(QStringLiteral("QuarantineFolder"));
    else
        _settings->setValue(QStringLiteral("QuarantineFolder"), quarantine);
    _settings->setValue(QStringLiteral("LogScans"), _logScans->isChecked());
    _settings->setValue(QStringLiteral("SuppressSummary"), _suppressSummary->isChecked());
    // The scanner splits the arguments at single blanks.
    const QString arguments = _additionalArgs->text().simplified();
    if (arguments.isEmpty())
        _settings->removeValue(QStringLiteral("AdditionalCmdLineArgs"));
    else
        _settings->setValue(QStringLiteral("AdditionalCmdLineArgs"), arguments);
    _settings->setValue(QStringLiteral("LogUpdates"), _logUpdates->isChecked());
    _settings->setValue(QStringLiteral("UpdateDefsOnLaunch"), _updateDefsOnLaunch->isChecked());
    _settings->setValue(QStringLiteral("RescanAfterUpdate"), _rescanAfterUpdate->isChecked());
    _settings->setValue(QStringLiteral("RescanJournalDays"), _rescanDays->value());
    _settings->setValue(QStringLiteral("rotateScanlogWhenSizeReaches"), _rotateSize->value());
    _settings->setValue(QStringLiteral("SUEnableAutomaticChecks"), _automaticChecks->isChecked());

    // Asked before the save, whose restart request makes a running agent
    // leave the bus for a moment.
    const bool agentRunning = CompanionApplication::isAgentRunning();
    if (!_settings->save(&problem)) {
        complain(tr("The settings could not be saved."), problem);
        return false;
    }
    // The restart request reaches only a running agent; one that quit for
    // lack of folders is started, or nothing is scanned until the next login.
    if (!agentRunning && !folders.isEmpty())
        CompanionApplication::startAgent(_agentProgram);
    if (_startAtLogin->isChecked() != LoginItem::isEnabled()
        && !LoginItem::setEnabled(_startAtLogin->isChecked(), _agentProgram, &problem)) {
        complain(tr("The login setting could not be changed."), problem);
        return false;
    }
    if (_nautilusScript->isChecked() != NautilusScript::isEnabled()
        && !NautilusScript::setEnabled(_nautilusScript->isChecked(), korvaneProgram(), &problem)) {
        complain(tr("The Files script could not be changed."), problem);
        return false;
    }
    QString note;
    if (!ScheduledScan::apply(schedule, korvaneProgram(), &problem, &note)) {
        complain(tr("The scheduled scan could not be set up."), problem);
        return false;
    }
    if (!note.isEmpty())
        complain(tr("The scheduled scan is saved."), note);
    return true;
}

QString PreferencesWindow::korvaneProgram() const
{
    return QFileInfo(_agentProgram).absolutePath() + QStringLiteral("/Korvane");
}

void PreferencesWindow::addScheduledFolder()
{
    const QString folder = _chooseFolder(this, tr("Choose a Folder to Scan on a Schedule"), QDir::homePath());
    const QString clean = CompanionSettings::abbreviated(folder);
    if (folder.isEmpty() || !_scheduledFolders->findItems(clean, Qt::MatchExactly).isEmpty())
        return;
    _scheduledFolders->addItem(clean);
}

void PreferencesWindow::showScan(const QStringList &paths)
{
    _tabs->setCurrentWidget(_scanPage);
    // Room for the rows under the progress.
    resize(width(), std::max(height(), 540));
    present();
    if (paths.isEmpty())
        return;
    if (_scanPage->running()) {
        _scanPage->addTargets(paths);
        return;
    }
    // Only what was asked for now: earlier targets would be scanned unasked.
    _scanPage->clearTargets();
    _scanPage->addTargets(paths);
    _scanPage->start();
}

void PreferencesWindow::present()
{
    // A window already open keeps what the user is editing.
    if (!isVisible())
        load();
    show();
    raise();
    activateWindow();
}

void PreferencesWindow::addFolder()
{
    const QString folder = _chooseFolder(this, tr("Choose a Folder to Watch"), QDir::homePath());
    if (folder.isEmpty())
        return;
    const QString clean = CompanionSettings::abbreviated(folder);
    if (!_folders->findItems(clean, Qt::MatchExactly).isEmpty())
        return;
    _folders->addItem(clean);
    _folders->setCurrentRow(_folders->count() - 1);
}

void PreferencesWindow::removeFolder()
{
    delete _folders->takeItem(_folders->currentRow());
}

void PreferencesWindow::moveFolder(int by)
{
    const int row = _folders->currentRow();
    const int target = row + by;
    if (row < 0 || target < 0 || target >= _folders->count())
        return;
    _folders->insertItem(target, _folders->takeItem(row));
    _folders->setCurrentRow(target);
}

void PreferencesWindow::addExclusion()
{
    const int row = _exclusions->rowCount();
    _exclusions->insertRow(row);
    _exclusions->setItem(row, EnabledColumn, checkItem(true));
    _exclusions->setItem(row, PatternColumn, new QTableWidgetItem);
    _exclusions->setItem(row, RegExColumn, checkItem(false));
    _exclusions->setItem(row, CommentColumn, new QTableWidgetItem);
    _exclusions->setCurrentCell(row, PatternColumn);
    _exclusions->editItem(_exclusions->item(row, PatternColumn));
}

void PreferencesWindow::removeExclusion()
{
    if (_exclusions->currentRow() >= 0)
        _exclusions->removeRow(_exclusions->currentRow());
}

void PreferencesWindow::chooseQuarantineFolder()
{
    const QString start = CompanionSettings::expanded(_quarantineFolder->text().trimmed());
    const QString folder =
        _chooseFolder(this, tr("Choose the Quarantine Folder"), start.isEmpty() ? QDir::homePath() : start);
    if (!folder.isEmpty())
        _quarantineFolder->setText(CompanionSettings::abbreviated(folder));
}

void PreferencesWindow::complain(const QString &message, const QString &details)
{
    AlertPresenter::sharedPresenter()->runModal({message, tr("OK"), {}, {}, details});
}
