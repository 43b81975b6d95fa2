#pragma once

#include "Tarnlib/Tarnlib/QXUtils.h"

#include <QWidget>

#include <functional>

class CompanionSettings;
class QCheckBox;
class QComboBox;
class QCloseEvent;
class QKeyEvent;
class QDialogButtonBox;
class QLabel;
class QTimer;
class QLineEdit;
class QListWidget;
class QSpinBox;
class QTableWidget;
class QTabWidget;
class ScanPage;

// The companion's preferences: watched folders, exclusions, scanning,
// logging and updates, whether the agent starts at login, and the scheduled
// scan. Nothing is written until Save; Revert shows the saved settings again,
// and Close or Escape leaves them as they were.
class PreferencesWindow : public QWidget
{
    Q_OBJECT
public:
    // Answers the chosen folder, or an empty string when none was chosen.
    using FolderChooser = std::function<QString(QWidget *parent, const QString &title, const QString &start)>;

    PreferencesWindow(CompanionSettings *settings, const QString &agentProgram, QWidget *parent = nullptr);
    // Tests hand the Scan page their own engine.
    PreferencesWindow(CompanionSettings *settings, const QString &agentProgram,
                      const QList<QXUtils::EngineCandidate> &engines, QWidget *parent = nullptr);

    // Tests choose folders without a modal dialog.
    void setFolderChooser(FolderChooser chooser);

    // Reads the settings into the controls.
    void load();
    // Writes the controls to the settings and saves them; a problem is shown
    // in an alert and nothing is saved. Answers whether it saved.
    bool save();
    // Shows the window in front, as when the agent asks for it.
    void present();
    ScanPage *scanPage() const { return _scanPage; }
    // Shows the Scan page in front and scans paths; a scan already running
    // goes on and paths wait in the list for the next.
    void showScan(const QStringList &paths);

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    QWidget *foldersPage();
    QWidget *exclusionsPage();
    QWidget *scanningPage();
    QWidget *schedulePage();
    QDialogButtonBox *buttonBox();
    // The guard's status over the tabs, asked again while the window is open.
    QLabel *protectionStatusLabel();
    void addFolder();
    void removeFolder();
    void moveFolder(int by);
    void addExclusion();
    void removeExclusion();
    void chooseQuarantineFolder();
    void addScheduledFolder();
    // Korvane, beside the agent, which the scheduled scan runs.
    QString korvaneProgram() const;
    void complain(const QString &message, const QString &details = {});
    // Asks the agent for the guard's status and shows it at the top.
    void askProtectionStatus();

    // A running scan is stopped only when the user says so.
    bool mayClose();

    CompanionSettings *_settings;
    QTabWidget *_tabs;
    ScanPage *_scanPage;
    QDialogButtonBox *_buttons;
    QLabel *_protectionStatus;
    QTimer *_statusTimer;
    QString _agentProgram;
    FolderChooser _chooseFolder;
    QListWidget *_folders;
    QTableWidget *_exclusions;
    QCheckBox *_scanEmail;
    QCheckBox *_quarantineInfected;
    QLineEdit *_quarantineFolder;
    QCheckBox *_logScans;
    QCheckBox *_suppressSummary;
    QLineEdit *_additionalArgs;
    QCheckBox *_logUpdates;
    QCheckBox *_updateDefsOnLaunch;
    QSpinBox *_rotateSize;
    QCheckBox *_rescanAfterUpdate;
    QSpinBox *_rescanDays;
    QCheckBox *_automaticChecks;
    QCheckBox *_startAtLogin;
    QCheckBox *_nautilusScript;
    QCheckBox *_scheduleEnabled;
    QListWidget *_scheduledFolders;
    QComboBox *_scheduleWeekday;
    QSpinBox *_scheduleHour;
};
