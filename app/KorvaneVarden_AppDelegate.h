#pragma once

#include "CleanScanJournal.h"
#include "DispatcherDelegate.h"
#include "events/QXFSEventStreamWatcherDelegate.h"
#include "events/SCEventListenerProtocol.h"
#include "platform/AppcastUpdaterDelegate.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "Tarnlib/Tarnlib/QXUtilsDelegate.h"
#include "ui/EnablingRules.h"
#include "ui/EnablingRulesDelegate.h"
#include "ui/EngineStatusReactionsDelegate.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QHash>
#include <QIcon>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QTimer>

#include <functional>
#include <memory>

class AppcastUpdater;
class DefinitionsRescan;
class Dispatcher;
class EngineStatusReactions;
class InfectedFileActions;
class InfectedItemsStore;
class InfectedItemsWindow;
class PathPopup;
class ProtectionStatus;
class SelfTest;
class QAction;
class QLabel;
class QMenu;
class QMessageBox;
class QThreadPool;
class QToolBar;
class QXTInfectedViewArrayController;
class QXTTableView;
class QXAttachedWindow;
class QXFSEventStreamWatcher;
class SCEvents;
class ScanLogRotator;
class StatusItem;

// The application's delegate: owns every long-lived object, runs the
// startup, sleep, restart and quit, and is the hub through which batches go
// to the engine and results come back.
class KorvaneVarden_AppDelegate : public QObject,
                                  public DispatcherDelegate,
                                  public QXUtilsDelegate,
                                  public EngineStatusReactionsDelegate,
                                  public EnablingRulesDelegate,
                                  public SCEventListenerProtocol,
                                  public AppcastUpdaterDelegate,
                                  public QXFSEventStreamWatcherDelegate
{
    Q_OBJECT
public:
    // Tests hand their own engine candidates.
    explicit KorvaneVarden_AppDelegate(
        const QList<QXUtils::EngineCandidate> &engineCandidates = QXUtils::defaultEngineCandidates(),
        QObject *parent = nullptr);
    ~KorvaneVarden_AppDelegate() override;

    void applicationDidFinishLaunching();
    void continueStartup() override;
    void applicationWillTerminate();
    void goingToSleep();
    void wakingUp();
    void restartVarden(QObject *sender);
    void quit(QObject *sender) override;

    // Menu commands.
    void launchKorvane(QObject *sender) override;
    void updateDefs(QObject *sender) override;

    // The status item's menu and the action menu, built once at launch.
    void setupVardenMenus();
    // Asked for every item each time a menu opens.
    bool validateMenuItem(QAction *item);
    void doNothing(QObject *sender);
    void doNothingForActionMenu(QObject *sender);
    // Shows the about box without waiting for it.
    void about(QObject *sender);
    // Beeps when there is no file at the path or no program opens it.
    void openLogFile(const QString &path);
    void openScanLog(QObject *sender);
    void openKorvaneScanLog(QObject *sender);
    void openUpdateLog(QObject *sender);
    void abortScans(QObject *sender);
    void reallyAbortScans(QObject *sender);
    // The engine's scan programs, stopped by name when scans are aborted;
    // tests name programs of their own so that no one else's scans stop.
    static QStringList scanProgramNames();
    static void setScanProgramNames(const QStringList &names);

    // The infected-items window's toolbar.
    void setupToolbar();
    QStringList toolbarDefaultItemIdentifiers(QToolBar *toolbar) const;
    QStringList toolbarAllowedItemIdentifiers(QToolBar *toolbar) const;
    // Nothing for an identifier that names no item.
    QAction *toolbarItemForItemIdentifier(QToolBar *toolbar, const QString &identifier, bool willBeInsertedIntoToolbar);
    bool validateToolbarItem(QAction *item);

    // Folder watching.
    void startWatching(QObject *sender);
    void setupEventListener();
    void stopWatching(QObject *sender);
    void restartWatching(QObject *sender);
    void pathWatcherEventOccurred(SCEvents *pathWatcher, SCEvent *event) override;
    void pathWatcherCoverageChanged(SCEvents *pathWatcher, const QString &root, const QString &problem) override;
    void addToWaitingList(const QString &path) override;
    void rotateLogFile();

    // The companion's update check.
    void checkForKorvaneUpdate(QObject *sender);
    void updaterDidFindValidUpdate(AppcastUpdater *updater, const AppcastItem &update) override;
    void updaterDidNotFindUpdate(AppcastUpdater *updater) override;
    AppcastUpdater *theSparkleUpdater() const { return _theSparkleUpdater; }
    QTimer *korvaneUpdateTimer() const { return _korvaneUpdateTimer; }
    // Ten seconds; tests check more often.
    static int updateCheckInterval();
    static void setUpdateCheckInterval(int ms);
    // Opens the watched folder named by the menu item's title.
    void openFolder(QAction *sender);
    // Brings up the companion's preferences; then, once it has asked or
    // given up, calls done.
    void addRemoveFolders(QObject *sender, std::function<void()> done = {});

    // The relaunch tool ships beside the agent; tests point elsewhere.
    static QString relaunchToolPath();
    static void setRelaunchToolPath(const QString &path);
    // $XDG_RUNTIME_DIR when it is the user's own, else a fresh folder of mode
    // 700 in the temporary folder; empty when neither can be had.
    static QString privateFolderForRelaunchTool();

    // The infected-items list.
    int addToInfectedListTheFile(const QString &fileName, const QString &path, const QString &infectionName,
                                 const QString &status);
    void showInfectionListWindow(QObject *sender);
    void removeSelectedFromInfectedList(QObject *sender);
    void clearInfectedList(QObject *sender);
    // A click on one of the agent's notifications.
    void userNotificationCenterDidActivateNotification();

    // The file actions on the selected rows.
    void deleteFile(QObject *sender);
    void quarantineFile(QObject *sender);
    bool quarantineFileAtIndex(int row);
    void putBack(QObject *sender);
    void revealInFinder(QObject *sender);
    // -1 not in a mail store, 0 the user declined, 1 the user confirmed.
    int checkIfLooksLikeMailAndPromptForFile(const QString &path);

    // Whether the guard does its whole work, shown in the tray.
    ProtectionStatus *protectionStatus() const { return _protectionStatus; }
    SelfTest *selfTest() const { return _selfTest; }
    // Runs the self-test now; it runs at every start of watching and then
    // every six hours.
    void runSelfTest();
    // Tests of other things keep the self-test's file out of their lists.
    static bool isSelfTestEnabled();
    static void setSelfTestEnabled(bool enabled);
    // Definitions older than this leave the guard partial.
    static constexpr int definitionsMaxAgeDays = 7;

    // The files scanned clean, scanned again once the definitions change.
    CleanScanJournal *cleanScanJournal() const { return _cleanScanJournal; }
    DefinitionsRescan *definitionsRescan() const { return _definitionsRescan; }
    // Hands the next files of a rescan to the engine when nothing else waits.
    void feedRescan();
    // A rescan's batch is sized to end within this, below one tick, which
    // is all a new file may wait for it.
    static constexpr int rescanBatchTargetMs = 700;

    // The path popup beside the selected row.
    void showInfectedPath(QObject *sender);
    void hideFloatingPathWindow(QObject *sender);

    void forwardAnimation();
    void reverseAnimation();
    void startUpdateAnimation() override;
    void stopAnimation() override;

    // DispatcherDelegate
    bool readyToScan() override { return _readyToScan && !_quitting; }
    void startScan() override;
    QXUtils *utils() override { return _utils; }

    // QXUtilsDelegate
    bool respondsTo(Optional operation) const override;
    bool useClamd() override { return true; }
    bool wantScanStatusUpdates() override { return _wantScanStatusUpdates; }
    bool wantUpdatePercentages() override { return _wantUpdatePercentages; }
    void scanStarted() override;
    void scanFinishedWithStatus(int status) override;
    void scanCrashed(const QString &reason) override;
    void infectionFound(const QString &infectionName, const QString &inFile) override;
    void updateProgressBarWithCountOfFilesScannedSoFar(quint32 count) override;
    void engineNotFound() override;
    void engineFoundWithVersionString(const QString &version) override;
    void updateStarted() override;
    void updateFinishedWithStatus(int status) override;
    void updateProgressWithMessage(const QString &message) override;
    void updateProgressWithPercentDone(double percent) override;
    void fileCounterReturned(qint64 count) override;
    void appendToConsole(const QString &text) override;
    void needToUpdateDB() override;
    void clamdStarted() override;
    void clamdFailedToStart() override;
    void clamdAlreadyRunning() override;
    void savedSearchCutAtPath(const QString &path, qint64 entries) override;

    QThreadPool *theOperationQueue() const { return _theOperationQueue; }
    quint64 theLastEventSeen() const { return _theLastEventSeen; }
    void setTheLastEventSeen(quint64 id) { _theLastEventSeen = id; }
    SCEvents *events() const { return _events.get(); }
    StatusItem *throbberStatusItem() const { return _throbberStatusItem; }
    QTimer *throbberAnimationTimer() { return &_throbberAnimationTimer; }
    QList<QIcon> throbberAnimationFrames() const { return _throbberAnimationFrames; }
    qint32 throbberAnimationCurrentFrame() const { return _throbberAnimationCurrentFrame; }
    void setThrobberAnimationCurrentFrame(qint32 frame) { _throbberAnimationCurrentFrame = frame; }
    QIcon throbberAltImage() const { return _throbberAltImage; }
    QIcon throbberAltImage2() const { return _throbberAltImage2; }
    QIcon throbberDefaultImage() const { return _throbberDefaultImage; }
    QIcon throbberWatchingImage() const { return _throbberWatchingImage; }
    void setThrobberWatchingImage(const QIcon &image) { _throbberWatchingImage = image; }
    QMenu *mainMenu() const { return _mainMenu; }
    QMenu *foldersBeingWatchedSubmenu() const { return _foldersBeingWatchedSubmenu; }
    QMenu *actionMenu() const { return _actionMenu.get(); }
    bool startingUp() const override { return _startingUp; }
    void setStartingUp(bool flag) { _startingUp = flag; }
    bool watching() const override { return _watching; }
    void setWatching(bool flag) { _watching = flag; }
    void setWantScanStatusUpdates(bool flag) { _wantScanStatusUpdates = flag; }
    void setWantUpdatePercentages(bool flag) { _wantUpdatePercentages = flag; }
    Dispatcher *dispatcher() const { return _dispatcher; }
    void setReadyToScan(bool flag) override { _readyToScan = flag; }
    bool startWatchingAfterSleep() const { return _startWatchingAfterSleep; }
    void setStartWatchingAfterSleep(bool flag) { _startWatchingAfterSleep = flag; }
    InfectedItemsWindow *infectionListWindow() const override { return _infectionListWindow; }
    QXTTableView *infectionListTableView() const { return _infectionListTableView; }
    QXTInfectedViewArrayController *infectedList() const { return _infectedList; }
    QToolBar *toolbar() const { return _toolbar; }
    bool needGfslogger() const { return _needGfslogger; }
    QXFSEventStreamWatcher *gfsWatcher() const { return _gfsWatcher; }
    QXAttachedWindow *attachedWindow() const;
    QWidget *popupFloaterView() const;
    QLabel *popupFloaterTextField() const;

private:
    // The sender our distributed notifications carry.
    inline static const QString notificationObject = QStringLiteral("KorvaneVarden");

    void observeCompanionAndWorkspace();
    // The status: its sources and how the user sees it.
    void setupProtectionStatus();
    void showProtectionStatus();
    void tellOfWorseStatus(int level, const QString &reason);
    void tellOfProtectionAgain();
    void takeSettingsConflicts();
    void takeDefinitionsDate(const QString &engineVersion);
    void checkDefinitionsAge();
    // The self-test's file goes to the engine in a batch of its own, which
    // leaves the user's scan log alone; answers whether this batch was it.
    bool scanSelfTestApart(QStringList &batch);
    void stopObserving();
    void setupRescan();
    bool rescanEnabled() const;
    // Journals what the batch that just ended found clean.
    // What the batch's files are before the scan, for the journal of clean scans.
    void noteBatchBeforeScan(const QStringList &batch);
    void takeCleanScans(int status);
    void validateMenu(QMenu *menu);
    void validateToolbarItems();
    void scheduleUpdateChecks();

    QThreadPool *_theOperationQueue;
    quint64 _theLastEventSeen = ~quint64(0);
    std::unique_ptr<SCEvents> _events;
    StatusItem *_throbberStatusItem;
    QTimer _throbberAnimationTimer;
    QList<QIcon> _throbberAnimationFrames;
    qint32 _throbberAnimationCurrentFrame = 0;
    QIcon _throbberAltImage;
    QIcon _throbberAltImage2;
    QIcon _throbberDefaultImage;
    QIcon _throbberWatchingImage;
    QMenu *_mainMenu = nullptr;
    QMenu *_foldersBeingWatchedSubmenu = nullptr;
    std::unique_ptr<QMenu> _actionMenu;
    EnablingRules _enablingRules{this};
    QPointer<QMessageBox> _aboutBox;
    bool _startingUp = true;
    QXUtils *_utils;
    bool _watching = false;
    bool _wantScanStatusUpdates = false;
    bool _wantUpdatePercentages = false;
    Dispatcher *_dispatcher;
    bool _readyToScan = false;
    // Set by the first quit; from then on nothing new starts.
    bool _quitting = false;
    bool _startWatchingAfterSleep = false;
    // The main interface: the window and the outlets into it.
    InfectedItemsWindow *_infectionListWindow;
    QXTTableView *_infectionListTableView;
    QXTInfectedViewArrayController *_infectedList = nullptr;
    QToolBar *_toolbar = nullptr;
    bool _needGfslogger = false;
    QXFSEventStreamWatcher *_gfsWatcher = nullptr;
    EngineStatusReactions *_engineStatusReactions;
    InfectedFileActions *_infectedFileActions;
    InfectedItemsStore *_infectedItemsStore;
    std::unique_ptr<ScanLogRotator> _scanLogRotator;
    AppcastUpdater *_theSparkleUpdater = nullptr;
    QTimer *_korvaneUpdateTimer = nullptr;
    // Holds attachedWindow, popupFloaterView and popupFloaterTextField.
    PathPopup *_pathPopup;
    ProtectionStatus *_protectionStatus;
    SelfTest *_selfTest;
    QTimer _selfTestTimer;
    bool _selfTestBatch = false;
    bool _toldOfWorseStatus = false;
    QDateTime _definitionsDate;
    QTimer _definitionsAgeTimer;
    CleanScanJournal *_cleanScanJournal = nullptr;
    DefinitionsRescan *_definitionsRescan = nullptr;
    // What each file of the batch under way was when it was handed over.
    QHash<QString, CleanScanJournal::Entry> _batchBeforeScan;
    QSet<QString> _infectedOfBatch;
    bool _rescanBatch = false;
    int _rescanBatchSize = 64;
    QElapsedTimer _rescanBatchClock;
    QTimer _rescanTimer;
};
