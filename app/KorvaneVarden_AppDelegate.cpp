#include "KorvaneVarden_AppDelegate.h"

#include "Dispatcher.h"
#include "ProtectionStatus.h"
#include "SelfTest.h"
#include "events/QXFSEventStreamWatcher.h"
#include "events/SCEvent.h"
#include "events/SCEvents.h"
#include "platform/AgentStatusService.h"
#include "platform/AppcastUpdater.h"
#include "platform/ApplicationHost.h"
#include "platform/BundleInfo.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/FileSystemWatcher.h"
#include "platform/Localization.h"
#include "platform/NamedImage.h"
#include "platform/SleepWakeNotifier.h"
#include "platform/StatusItem.h"
#include "platform/SystemLog.h"
#include "platform/SystemVersion.h"
#include "platform/SystemBeep.h"
#include "platform/UserDefaults.h"
#include "platform/UserFolders.h"
#include "platform/UserNotificationCenter.h"
#include "platform/AlertPresenter.h"
#include "platform/Workspace.h"
#include "ui/AlternateMenuItem.h"
#include "ui/EngineStatusReactions.h"
#include "ui/InfectedFileActions.h"
#include "ui/InfectedItemsStore.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/PathPopup.h"
#include "ui/QXAttachedWindow.h"
#include "ui/ScanLogRotator.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QAction>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMenu>
#include <QMessageBox>
#include <QProcess>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QToolBar>
#include <QWindow>

#include <functional>

#include <pwd.h>
#include <unistd.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString restartNotification = QStringLiteral("KorvaneVardenShouldRestart");
const QString quitNotification = QStringLiteral("KorvaneVardenShouldQuit");
const QString hasQuitNotification = QStringLiteral("KorvaneVardenHasQuit");
const QString notificationObject = QStringLiteral("KorvaneVarden");
const QString openPrefsNotification = QStringLiteral("KorvaneShouldOpenPrefs");

// How long adding or removing folders waits for the companion to come up.
constexpr int companionWaitSeconds = 30;
QString relaunchTool;
QString scanProgram = QStringLiteral("clamdscan");
int updateCheckMs = 10000;
const QUrl companionUpdateURL(QStringLiteral("Korvane://update"));

} // namespace

KorvaneVarden_AppDelegate::KorvaneVarden_AppDelegate(const QList<QXUtils::EngineCandidate> &engineCandidates,
                                                     QObject *parent)
    : QObject(parent)
    , _theOperationQueue(new QThreadPool(this))
    , _throbberStatusItem(StatusItem::create(this))
    , _infectionListWindow(new InfectedItemsWindow)
    , _infectionListTableView(_infectionListWindow->tableView())
{
    _startingUp = true;
    _readyToScan = false;
    _throbberStatusItem->setHighlightMode(true);

    for (int frame = 0; frame < 9; ++frame)
        _throbberAnimationFrames.append(NamedImage::imageNamed(QStringLiteral("animationFrame%1").arg(frame)));
    _throbberAnimationCurrentFrame = 0;
    _throbberAltImage = NamedImage::imageNamed(QStringLiteral("alt"));
    _throbberAltImage2 = NamedImage::imageNamed(QStringLiteral("alt2"));
    _throbberDefaultImage = NamedImage::imageNamed(QStringLiteral("default"));
    _throbberWatchingImage = NamedImage::imageNamed(QStringLiteral("watching"));

    _utils = new QXUtils(this, engineCandidates, this);
    _dispatcher = new Dispatcher(this, this);
    _engineStatusReactions = new EngineStatusReactions(this, this);
    _scanLogRotator = std::make_unique<ScanLogRotator>(_utils);
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    _infectedFileActions = new InfectedFileActions(
        list, _utils, [this](const QString &text) { appendToConsole(text); }, this);
    // Rows kept from the last run still wait for the user.
    _infectedItemsStore = new InfectedItemsStore(list, InfectedItemsStore::defaultPath(), this);
    _infectedFileActions->setJournal(_infectedItemsStore->journal());
    if (list->rowCount() > 0)
        _throbberWatchingImage = NamedImage::imageNamed(QStringLiteral("watchingWithAlert"));
    _pathPopup = new PathPopup(_infectionListWindow, this);
    connect(_infectionListWindow->dataSource(), &QXTInfectedViewArrayController::willRemoveSelectedObjects, this,
            [this] { hideFloatingPathWindow(nullptr); });

    _throbberAnimationTimer.setInterval(125);
    // Filled while watching; the status menu shows it once it exists.
    _foldersBeingWatchedSubmenu = new QMenu;
    _protectionStatus = new ProtectionStatus(this);
    setupProtectionStatus();
}

KorvaneVarden_AppDelegate::~KorvaneVarden_AppDelegate()
{
    stopObserving();
    _events.reset();
    delete _mainMenu;
    delete _foldersBeingWatchedSubmenu;
    // The list goes with its window: its last change is written first.
    _infectedItemsStore->flush();
    delete _infectionListWindow;
}

void KorvaneVarden_AppDelegate::applicationDidFinishLaunching()
{
    _wantScanStatusUpdates = false;
    _wantUpdatePercentages = true;

    _utils->setup();
    _utils->checkEngine();

    _needGfslogger = false;
    if (SystemVersion::productVersion().startsWith(QLatin1String("10.6"))) {
        SystemLog::log(QStringLiteral("running on 10.6 - we need to use gfslogger. Booooo! If you see this and "
                                      "you're NOT running 10.6, please let me know - support@korvane.org"));
        _needGfslogger = true;
        _gfsWatcher = new QXFSEventStreamWatcher(this, this);
        _gfsWatcher->start();
    }

    _infectionListWindow->setWindowTitle(Localization::text("INFECTED_ITEMS_WINDOW_TITLE"));
    _infectionListWindow->dataSource()->setColumnTitles(
        {Localization::text("FILENAME"), Localization::text("INFECTION_NAME"), Localization::text("STATUS")});

    _throbberStatusItem->setImage(_throbberDefaultImage);
    _throbberStatusItem->setAlternateImage(_throbberAltImage);

    _toolbar = _infectionListWindow->toolbar();
    _infectedList = qobject_cast<QXTInfectedViewArrayController *>(_infectionListTableView->model());
    setupVardenMenus();
    setupToolbar();

    UserNotificationCenter *notifications = UserNotificationCenter::defaultCenter();
    notifications->setFallbackStatusItem(_throbberStatusItem);
    connect(notifications, &UserNotificationCenter::activated, this,
            &KorvaneVarden_AppDelegate::userNotificationCenterDidActivateNotification);

    observeCompanionAndWorkspace();
    _startWatchingAfterSleep = false;

    auto *service = new AgentStatusService(
        [this] {
            return AgentStatusService::Answer{ProtectionStatus::levelName(_protectionStatus->level()),
                                              _protectionStatus->reasons()};
        },
        this);
    if (!service->publish())
        SystemLog::log(QStringLiteral("the status cannot be asked on the session bus"));
}

void KorvaneVarden_AppDelegate::observeCompanionAndWorkspace()
{
    DistributedNotificationCenter *center = DistributedNotificationCenter::defaultCenter();
    center->addObserver(this, restartNotification, [this](const QString &) { restartVarden(this); });
    center->addObserver(this, quitNotification, [this](const QString &) { quit(this); });

    SleepWakeNotifier *notifier = SleepWakeNotifier::sharedNotifier();
    connect(notifier, &SleepWakeNotifier::willSleep, this, &KorvaneVarden_AppDelegate::goingToSleep);
    connect(notifier, &SleepWakeNotifier::didWake, this, &KorvaneVarden_AppDelegate::wakingUp);
}

void KorvaneVarden_AppDelegate::stopObserving()
{
    DistributedNotificationCenter::defaultCenter()->removeObserver(this);
    disconnect(SleepWakeNotifier::sharedNotifier(), nullptr, this, nullptr);
}

void KorvaneVarden_AppDelegate::continueStartup()
{
    if (_quitting)
        return;
    if (_startingUp) {
        _startingUp = false;
        startWatching(nullptr);
        // The nothing-to-watch alert may have been answered with Quit.
        if (_quitting)
            return;
        if (_utils->readPreferenceForKey(QStringLiteral("UpdateDefsOnLaunch")).toBool())
            updateDefs(nullptr);
        else
            _readyToScan = true;
    } else {
        _readyToScan = true;
    }

    if (!_theSparkleUpdater)
        _theSparkleUpdater = AppcastUpdater::updaterForBundle(this);
    if (_utils->readPreferenceForKey(QStringLiteral("SUEnableAutomaticChecks")).toBool()) {
        scheduleUpdateChecks();
    } else {
        // Checks allowed at an earlier run end here.
        delete _korvaneUpdateTimer;
        _korvaneUpdateTimer = nullptr;
        SystemLog::log(QStringLiteral("not allowed to check"));
    }
    _theSparkleUpdater->setDelegate(this);
}

int KorvaneVarden_AppDelegate::updateCheckInterval()
{
    return updateCheckMs;
}
void KorvaneVarden_AppDelegate::setUpdateCheckInterval(int ms)
{
    updateCheckMs = ms;
}

// Each run of continueStartup arms the checks anew; the earlier timer goes,
// so that checks never pile up.
void KorvaneVarden_AppDelegate::scheduleUpdateChecks()
{
    delete _korvaneUpdateTimer;
    _korvaneUpdateTimer = new QTimer(this);
    _korvaneUpdateTimer->setInterval(updateCheckMs);
    connect(_korvaneUpdateTimer, &QTimer::timeout, this, [this] { checkForKorvaneUpdate(_korvaneUpdateTimer); });
    _korvaneUpdateTimer->start();
}

void KorvaneVarden_AppDelegate::checkForKorvaneUpdate(QObject *)
{
    _theSparkleUpdater->checkForUpdateInformation();
}

void KorvaneVarden_AppDelegate::updaterDidFindValidUpdate(AppcastUpdater *, const AppcastItem &)
{
    // A check that was under way when the question came up must not ask again.
    if (!_korvaneUpdateTimer)
        return;
    delete _korvaneUpdateTimer;
    _korvaneUpdateTimer = nullptr;
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {Localization::text("KORVANE_UPDATE_AVAILABLE_TITLE"), Localization::text("YES"), Localization::text("NO"),
         QString(), Localization::text("KORVANE_UPDATE_AVAILABLE_MESSAGE")});
    if (answer == AlertPresenter::DefaultReturn)
        Workspace::sharedWorkspace()->openURL(companionUpdateURL);
    scheduleUpdateChecks();
}

void KorvaneVarden_AppDelegate::updaterDidNotFindUpdate(AppcastUpdater *)
{}

void KorvaneVarden_AppDelegate::applicationWillTerminate()
{
    stopWatching(nullptr);
}

void KorvaneVarden_AppDelegate::startScan()
{
    _readyToScan = false;
    if (_utils->scanning())
        return;
    QStringList itemsToScan = _dispatcher->grabItemsToScan();
    // Nothing to hand over must not leave the guard waiting for a scan's end.
    if (itemsToScan.isEmpty()) {
        _readyToScan = true;
        return;
    }
    _selfTestBatch = scanSelfTestApart(itemsToScan);
    if (_selfTestBatch) {
        _utils->setScanning(true);
        _utils->scanFiles(itemsToScan, false);
        return;
    }
    SystemLog::log(QStringLiteral("itemsToScan.count: %1").arg(itemsToScan.size()));
    _utils->setScanning(true);
    _utils->determineQuarantineSettings();
    _utils->determineWhatToExcludeFromThisScan();
    // The daemon's client takes no exclusions, so they are applied here.
    // Files the list moved away are known by name even where the
    // quarantine folder cannot be left out whole.
    QStringList movedByUs;
    for (const InfectedItem &item : _infectionListWindow->dataSource()->arrangedObjects()) {
        if (!item.value(QStringLiteral("originalFilePath")).toString().isEmpty())
            movedByUs << item.value(QStringLiteral("filePath")).toString();
    }
    const QStringList toScan = _utils->leaveExcludedPathsOutOfBatch(itemsToScan, movedByUs);
    takeSettingsConflicts();
    if (toScan.isEmpty()) {
        _utils->setScanning(false);
        _readyToScan = true;
        return;
    }
    _utils->scanFiles(toScan);
}

void KorvaneVarden_AppDelegate::scanStarted()
{
    _throbberAnimationCurrentFrame = 0;
    disconnect(&_throbberAnimationTimer, &QTimer::timeout, this, nullptr);
    connect(&_throbberAnimationTimer, &QTimer::timeout, this, &KorvaneVarden_AppDelegate::forwardAnimation);
    _throbberAnimationTimer.start();
}

void KorvaneVarden_AppDelegate::startUpdateAnimation()
{
    _throbberAnimationCurrentFrame = int(_throbberAnimationFrames.size()) - 1;
    disconnect(&_throbberAnimationTimer, &QTimer::timeout, this, nullptr);
    connect(&_throbberAnimationTimer, &QTimer::timeout, this, &KorvaneVarden_AppDelegate::reverseAnimation);
    _throbberAnimationTimer.start();
}

void KorvaneVarden_AppDelegate::stopAnimation()
{
    _throbberAnimationTimer.stop();
    disconnect(&_throbberAnimationTimer, &QTimer::timeout, this, nullptr);
    _throbberStatusItem->setImage(_throbberWatchingImage);
}

void KorvaneVarden_AppDelegate::scanFinishedWithStatus(int)
{
    if (std::exchange(_selfTestBatch, false))
        _selfTest->scanEnded();
    // The engine may have refused the user's extra arguments.
    takeSettingsConflicts();
    stopAnimation();
    _utils->setScanning(false);
    _readyToScan = true;
}

void KorvaneVarden_AppDelegate::scanCrashed(const QString &reason)
{
    SystemLog::log(QStringLiteral("-[KorvaneVarden_AppDelegate scanCrashed:]:%1").arg(reason));
    scanFinishedWithStatus(0);
}

void KorvaneVarden_AppDelegate::forwardAnimation()
{
    _throbberStatusItem->setImage(_throbberAnimationFrames.value(_throbberAnimationCurrentFrame));
    ++_throbberAnimationCurrentFrame;
    if (_throbberAnimationCurrentFrame == _throbberAnimationFrames.size())
        _throbberAnimationCurrentFrame = 0;
}

void KorvaneVarden_AppDelegate::reverseAnimation()
{
    _throbberStatusItem->setImage(_throbberAnimationFrames.value(_throbberAnimationCurrentFrame));
    --_throbberAnimationCurrentFrame;
    if (_throbberAnimationCurrentFrame < 0)
        _throbberAnimationCurrentFrame = int(_throbberAnimationFrames.size()) - 1;
}

void KorvaneVarden_AppDelegate::goingToSleep()
{
    if (_watching) {
        SystemLog::log(QStringLiteral(
            "We're currently watching for changes, so stop and then register to know when we wake up again"));
        stopWatching(this);
        _startWatchingAfterSleep = true;
    }
    SystemLog::log(QStringLiteral("Nighty night!"));
}

void KorvaneVarden_AppDelegate::wakingUp()
{
    SystemLog::log(QStringLiteral("Wakey wakey!"));
    if (_startWatchingAfterSleep) {
        startWatching(this);
        _startWatchingAfterSleep = false;
    }
}

QString KorvaneVarden_AppDelegate::relaunchToolPath()
{
    if (!relaunchTool.isEmpty())
        return relaunchTool;
    // Beside the agent in a build tree; in the helper folder once installed.
    const QString own = QCoreApplication::applicationDirPath();
    const QString beside = own + QStringLiteral("/relaunch");
    const QString installed = QDir::cleanPath(own + QStringLiteral("/../" KORVANE_HELPER_DIR "/relaunch"));
    return QFileInfo(beside).isExecutable() || !QFileInfo(installed).isExecutable() ? beside : installed;
}

void KorvaneVarden_AppDelegate::setRelaunchToolPath(const QString &path)
{
    relaunchTool = path;
}

QString KorvaneVarden_AppDelegate::privateFolderForRelaunchTool()
{
    // The copy runs with this user's rights, so it must lie where nobody else
    // can place a file first.
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    struct stat info;
    if (!runtime.isEmpty() && ::stat(QFile::encodeName(runtime).constData(), &info) == 0 && S_ISDIR(info.st_mode)
        && info.st_uid == ::getuid() && (info.st_mode & 077) == 0)
        return runtime;
    QTemporaryDir fresh(QDir::tempPath() + QStringLiteral("/KorvaneVarden-relaunch-XXXXXX"));
    if (!fresh.isValid())
        return {};
    // The tool runs after we are gone.
    fresh.setAutoRemove(false);
    return fresh.path();
}

void KorvaneVarden_AppDelegate::restartVarden(QObject *)
{
    if (_quitting)
        return;
    const QString tool = relaunchToolPath();
    QString program = tool;
    const QString folder = privateFolderForRelaunchTool();
    const QString workingCopy = QDir(folder).filePath(QFileInfo(tool).fileName());
    if (!folder.isEmpty())
        QFile::remove(workingCopy);
    if (!folder.isEmpty() && QFile::copy(tool, workingCopy))
        program = workingCopy;
    else
        SystemLog::log(QStringLiteral("cannot copy %1 to a private folder: it runs from where it is").arg(tool));
    QProcess relaunch;
    relaunch.setProgram(program);
    relaunch.setArguments(
        {QCoreApplication::applicationFilePath(), QString::number(QCoreApplication::applicationPid())});
    bool started = relaunch.startDetached();
    if (!started && program != tool) {
        // A temporary folder mounted noexec takes the copy but will not run it.
        SystemLog::log(QStringLiteral("the copy of %1 does not start: it runs from where it is").arg(tool));
        QFile::remove(workingCopy);
        relaunch.setProgram(tool);
        started = relaunch.startDetached();
    }
    if (!started) {
        // The agent still ends, as asked; the user must know it will not come back.
        SystemLog::log(QStringLiteral("cannot start the relaunch tool %1: %2").arg(tool, relaunch.errorString()));
        UserNotificationCenter::defaultCenter()->deliverNotification(
            Localization::text("RELAUNCH_FAILED_TITLE"),
            Localization::text("RELAUNCH_FAILED_MESSAGE").arg(tool, relaunch.errorString()));
    }
    ApplicationHost::terminate();
}

void KorvaneVarden_AppDelegate::quit(QObject *)
{
    // A quit may arrive while an alert that offers Quit is open.
    if (_quitting)
        return;
    _quitting = true;
    _readyToScan = false;
    UserDefaults *own = UserDefaults::standardUserDefaults();
    own->removeObjectForKey(QStringLiteral("SUEnableAutomaticChecks"));
    own->removeObjectForKey(QStringLiteral("SULastCheckTime"));
    own->synchronize();

    stopObserving();
    DistributedNotificationCenter::defaultCenter()->postNotificationName(hasQuitNotification, notificationObject);
    ApplicationHost::terminate();
}

void KorvaneVarden_AppDelegate::startWatching(QObject *)
{
    if (_quitting)
        return;
    rotateLogFile();
    _theLastEventSeen = SCEvents::sinceNow;
    setupEventListener();
    // Settings that keep the guard from its work are told at once, not at
    // the first file; a scan under way still reads the ones it started with.
    if (_utils->scanning())
        return;
    _utils->determineQuarantineSettings();
    _utils->determineWhatToExcludeFromThisScan();
    _utils->determineAdditionalArguments();
    takeSettingsConflicts();
}

void KorvaneVarden_AppDelegate::setupEventListener()
{
    // The new stream tells again what it cannot watch.
    _protectionStatus->clearReasons(QStringLiteral("folder:"));
    _protectionStatus->clearReasons(QStringLiteral("saved-search:"));
    _events = std::make_unique<SCEvents>();
    _events->setResumeFromEventId(_theLastEventSeen);
    _events->setDelegate(this);

    QStringList paths;
    const QVariantList folders = _utils->readPreferenceForKey(QStringLiteral("VardenFolderArray")).toList();
    for (const QVariant &record : folders) {
        const QVariant pathName = record.toMap().value(QStringLiteral("pathName"));
        // A record without a path names nothing to watch.
        if (pathName.typeId() != QMetaType::QString || pathName.toString().isEmpty())
            continue;
        const QString path = UserFolders::expandTilde(pathName.toString());
        paths.append(path);
        QAction *entry = _foldersBeingWatchedSubmenu->addAction(path);
        connect(entry, &QAction::triggered, this, [this, entry] { openFolder(entry); });
    }

    if (!paths.isEmpty()) {
        _watching = true;
        if (isSelfTestEnabled())
            paths << SelfTest::folder();
        const QStringList excluded{UserFolders::home()
                                   + QStringLiteral("/Library/Caches/com.apple.Safari/Webpage Previews")};
        _events->setExcludedPaths(excluded);
        if (_needGfslogger)
            _gfsWatcher->startWatching(paths);
        else
            _events->startWatchingPaths(paths);
        _throbberStatusItem->setImage(_throbberWatchingImage);
        _protectionStatus->clearReason(QStringLiteral("watching"));
        runSelfTest();
        return;
    }

    _protectionStatus->setReason(QStringLiteral("watching"), ProtectionStatus::Off,
                                 QStringLiteral("no folder is set to be watched"));
    _throbberStatusItem->setImage(_throbberDefaultImage);
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {Localization::text("VARDEN_ERROR"), Localization::text("OPEN_PREFS"), Localization::text("QUIT_BUTTON"),
         QString(), Localization::text("NOTHING_TO_WATCH_MESSAGE.")});
    if (answer == AlertPresenter::DefaultReturn)
        addRemoveFolders(nullptr, [this] { quit(nullptr); });
    else
        quit(nullptr);
}

void KorvaneVarden_AppDelegate::stopWatching(QObject *sender)
{
    _selfTest->cancel();
    _selfTestTimer.stop();
    // Nothing is watched now: what the stream could not watch is no news.
    _protectionStatus->clearReasons(QStringLiteral("folder:"));
    // Sleep and restarts stop with the controller as sender, the end of the
    // program with none: only the user's stop leaves the guard off.
    if (sender && sender != this)
        _protectionStatus->setReason(QStringLiteral("watching"), ProtectionStatus::Off,
                                     QStringLiteral("watching was stopped"));
    if (_needGfslogger)
        _gfsWatcher->stopWatching();
    else if (_events)
        _events->stopWatchingPaths();

    UserDefaults *own = UserDefaults::standardUserDefaults();
    own->setObjectForKey(QVariant::fromValue<quint64>(_theLastEventSeen), QStringLiteral("lastEvent"));
    own->synchronize();

    _foldersBeingWatchedSubmenu->clear();
    _throbberStatusItem->setImage(_throbberDefaultImage);
    _watching = false;
}

void KorvaneVarden_AppDelegate::restartWatching(QObject *)
{
    stopWatching(this);
    startWatching(this);
}

void KorvaneVarden_AppDelegate::pathWatcherEventOccurred(SCEvents *, SCEvent *event)
{
    using Flag = FileSystemWatcher::Flag;
    const quint32 flags = quint32(event->eventFlags());
    const QString path = event->eventPath();
    if (_selfTest->owns(path))
        _selfTest->eventSeen(path);
    if (flags & Flag::ItemRemoved) {
        _dispatcher->removeFromWaitingList(path);
    } else if (flags & (Flag::ItemCreated | Flag::ItemRenamed)) {
        _dispatcher->addToWaitingList(path);
    } else if (!(flags & Flag::ItemModified)) {
        // Metadata, ownership and other changes without new content.
    } else if (!(flags & Flag::ItemIsDir)) {
        _dispatcher->addToWaitingList(path);
    } else if (flags & Flag::MustScanSubDirs) {
        SystemLog::log(QStringLiteral("modified dir with kFSEventStreamEventFlagMustScanSubDirs %1").arg(path));
        _dispatcher->addToWaitingList(path);
    } else {
        SystemLog::log(QStringLiteral("modified dir ignore %1").arg(path));
    }
    _theLastEventSeen = event->eventId();
}

void KorvaneVarden_AppDelegate::rotateLogFile()
{
    _scanLogRotator->rotateLogFile();
}

void KorvaneVarden_AppDelegate::openFolder(QAction *sender)
{
    Workspace::sharedWorkspace()->openFile(UserFolders::expandTilde(sender->text()));
}

void KorvaneVarden_AppDelegate::addRemoveFolders(QObject *, std::function<void()> done)
{
    Workspace *workspace = Workspace::sharedWorkspace();
    const QString companion = BundleInfo::companionIdentifier();
    if (!workspace->launchAppWithBundleIdentifier(companion)) {
        SystemBeep::beep();
        if (done)
            done();
        return;
    }
    // Polled once a second without holding the main thread, and not forever.
    auto *poll = new QTimer(this);
    auto looks = std::make_shared<int>(0);
    auto look = [this, workspace, companion, poll, looks, done] {
        const bool active = workspace->isApplicationActive(companion);
        if (!active && ++*looks < companionWaitSeconds)
            return;
        poll->stop();
        poll->deleteLater();
        if (active)
            DistributedNotificationCenter::defaultCenter()->postNotificationName(openPrefsNotification,
                                                                                 notificationObject);
        else
            SystemLog::log(QStringLiteral("%1 did not come up: its preferences were not opened").arg(companion));
        if (done)
            done();
    };
    connect(poll, &QTimer::timeout, this, look);
    poll->start(1000);
    QTimer::singleShot(0, poll, look);
}

void KorvaneVarden_AppDelegate::addToWaitingList(const QString &path)
{
    _dispatcher->addToWaitingList(path);
}

bool KorvaneVarden_AppDelegate::respondsTo(Optional operation) const
{
    // The engine's newer-version notice has no reaction here.
    return operation != Optional::NeedToUpdateEngineDisplayVersionString;
}

void KorvaneVarden_AppDelegate::launchKorvane(QObject *)
{
    Workspace::sharedWorkspace()->launchAppWithBundleIdentifier(BundleInfo::companionIdentifier());
}

void KorvaneVarden_AppDelegate::updateDefs(QObject *)
{
    if (_quitting)
        return;
    _utils->updateDefs();
}

void KorvaneVarden_AppDelegate::setupVardenMenus()
{
    // Each item names its operation in its data, which the enabling rules read.
    const auto add = [this](QMenu *menu, const char *key, const char *action, auto operation) {
        QAction *item = menu->addAction(Localization::text(key));
        item->setData(QString::fromLatin1(action));
        connect(item, &QAction::triggered, this, [this, item, operation] { std::invoke(operation, this, item); });
        return item;
    };
    const auto addSubmenu = [this](QMenu *menu, QMenu *submenu, const char *key, const char *action, auto operation) {
        QAction *item = menu->addMenu(submenu);
        item->setText(Localization::text(key));
        item->setData(QString::fromLatin1(action));
        connect(item, &QAction::triggered, this, [this, item, operation] { std::invoke(operation, this, item); });
    };
    using Self = KorvaneVarden_AppDelegate;

    _actionMenu = std::make_unique<QMenu>();
    QMenu *actions = _actionMenu.get();
    add(actions, "SHOW_PATH", "showInfectedPath:", &Self::showInfectedPath);
    add(actions, "TOOLBAR_REVEAL", "revealInFinder:", &Self::revealInFinder);
    add(actions, "TOOLBAR_QUARANTINE", "quarantineFile:", &Self::quarantineFile);
    add(actions, "TOOLBAR_DELETE", "deleteFile:", &Self::deleteFile);
    actions->addSeparator();
    add(actions, "PUT_BACK", "putBack:", &Self::putBack);
    actions->addSeparator();
    add(actions, "REMOVE_FROM_LIST", "removeSelectedFromInfectedList:", &Self::removeSelectedFromInfectedList);
    add(actions, "TOOLBAR_INFECTIONLIST", "clearInfectedList:", &Self::clearInfectedList);
    actions->addSeparator();
    // These two belong to the table, which enables them only while it has the focus.
    QAction *selectAll = actions->addAction(Localization::text("SELECT_ALL"));
    selectAll->setData(QStringLiteral("selectAll:"));
    connect(selectAll, &QAction::triggered, _infectionListTableView, &QXTTableView::selectAll);
    QAction *copy = actions->addAction(Localization::text("COPY"));
    copy->setData(QStringLiteral("copy:"));
    connect(copy, &QAction::triggered, _infectionListTableView, &QXTTableView::copy);

    _infectionListTableView->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(_infectionListTableView, &QWidget::customContextMenuRequested, this,
            [this](const QPoint &at) { _actionMenu->popup(_infectionListTableView->viewport()->mapToGlobal(at)); });

    _mainMenu = new QMenu;
    QMenu *menu = _mainMenu;
    add(menu, "ABOUT_MENU_ITEM", "about:", &Self::about);
    menu->addSeparator();
    addSubmenu(menu, _foldersBeingWatchedSubmenu, "FOLDERS_BEING_WATCHED", "doNothing:", &Self::doNothing);
    add(menu, "ADD_REMOVE_MENU_ITEM",
        "addRemoveFolders:", [](Self *self, QObject *sender) { self->addRemoveFolders(sender); });
    menu->addSeparator();
    add(menu, "LAUNCH_KORVANE", "launchKorvane:", &Self::launchKorvane);
    add(menu, "UPDATE_VIRUS_DEFINITIONS", "updateDefs:", &Self::updateDefs);
    menu->addSeparator();
    add(menu, "START_WATCHING", "startWatching:", &Self::startWatching);
    add(menu, "STOP_WATCHING", "stopWatching:", &Self::stopWatching);
    add(menu, "RESTART_WATCHING", "restartWatching:", &Self::restartWatching);
    menu->addSeparator();
    add(menu, "SHOW_INFECTED_ITEMS", "showInfectionListWindow:", &Self::showInfectionListWindow);
    addSubmenu(menu, actions, "ACTION", "doNothingForActionMenu:", &Self::doNothingForActionMenu);
    menu->addSeparator();
    QAction *scanLog = add(menu, "OPEN_SCAN_LOG", "openScanLog:", &Self::openScanLog);
    QAction *korvaneScanLog = add(menu, "OPEN_KORVANE_SCAN_LOG", "openKorvaneScanLog:", &Self::openKorvaneScanLog);
    new AlternateMenuItem(menu, scanLog, korvaneScanLog);
    add(menu, "OPEN_UPDATE_LOG", "openUpdateLog:", &Self::openUpdateLog);
    menu->addSeparator();
    add(menu, "ABORT_SCANS_MENU_ITEM", "abortScans:", &Self::abortScans);
    add(menu, "QUIT_MENU_ITEM", "quit:", &Self::quit);

    for (QMenu *validated : {_mainMenu, actions, _foldersBeingWatchedSubmenu})
        connect(validated, &QMenu::aboutToShow, this, [this, validated] { validateMenu(validated); });
    _throbberStatusItem->setMenu(_mainMenu);
}

void KorvaneVarden_AppDelegate::validateMenu(QMenu *menu)
{
    for (QAction *item : menu->actions()) {
        if (!item->isSeparator())
            item->setEnabled(validateMenuItem(item));
    }
}

bool KorvaneVarden_AppDelegate::validateMenuItem(QAction *item)
{
    return _enablingRules.validateMenuItem(item);
}

void KorvaneVarden_AppDelegate::doNothing(QObject *)
{}
void KorvaneVarden_AppDelegate::doNothingForActionMenu(QObject *)
{}

void KorvaneVarden_AppDelegate::about(QObject *)
{
    if (!_aboutBox) {
        const QString text = QStringLiteral("<b>KorvaneVarden</b><p>%1</p>").arg(BundleInfo::shortVersionString());
        _aboutBox = new QMessageBox(QMessageBox::NoIcon, QStringLiteral("KorvaneVarden"), text, QMessageBox::Ok);
        _aboutBox->setIconPixmap(_throbberWatchingImage.pixmap(64));
        _aboutBox->setAttribute(Qt::WA_DeleteOnClose);
        _aboutBox->setModal(false);
    }
    _aboutBox->show();
    _aboutBox->raise();
    _aboutBox->activateWindow();
}

void KorvaneVarden_AppDelegate::openLogFile(const QString &path)
{
    if (path.isEmpty() || !QFileInfo(path).isFile() || !Workspace::sharedWorkspace()->openFile(path))
        SystemBeep::beep();
}

void KorvaneVarden_AppDelegate::openScanLog(QObject *)
{
    openLogFile(_utils->pathToScanLog());
}

void KorvaneVarden_AppDelegate::openKorvaneScanLog(QObject *)
{
    openLogFile(EnablingRules::korvaneScanLogPath(_utils->pathToScanLog()));
}

void KorvaneVarden_AppDelegate::openUpdateLog(QObject *)
{
    openLogFile(_utils->updateLogPath());
}

void KorvaneVarden_AppDelegate::abortScans(QObject *sender)
{
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {Localization::text("REALLY_ABORT_SCANS"), Localization::text("NO"), Localization::text("YES"), QString(),
         Localization::text("CONFIRM_ABORT_SCANS_MESSAGE")});
    if (answer == AlertPresenter::DefaultReturn) {
        SystemLog::log(QStringLiteral("do nothing"));
        return;
    }
    reallyAbortScans(sender);
}

void KorvaneVarden_AppDelegate::reallyAbortScans(QObject *)
{
    _dispatcher->removeAllItems();
    // Our own batch is stopped as such, so that what its clients leave
    // unscanned is not taken up again once they are killed below, and a batch
    // waiting for the scanning service, which has no program to kill, ends too.
    _utils->stop();
    // Only the user's own scans: an agent running as root leaves other users' alone.
    const passwd *user = getpwuid(getuid());
    if (!user) {
        SystemLog::log(QStringLiteral("no user name for uid %1: no scans were stopped").arg(getuid()));
        return;
    }
    QProcess killall;
    const QString name = QString::fromLocal8Bit(user->pw_name);
    killall.start(QStringLiteral("killall"),
                  {QStringLiteral("-q"), QStringLiteral("-9"), QStringLiteral("-u"), name, scanProgram});
    if (!killall.waitForFinished(5000)) {
        SystemLog::log(QStringLiteral("killall could not stop the scans: %1").arg(killall.errorString()));
        return;
    }
    const QString errors = QString::fromLocal8Bit(killall.readAllStandardError()).trimmed();
    if (!errors.isEmpty())
        SystemLog::log(QStringLiteral("error:%1").arg(errors));
}

QString KorvaneVarden_AppDelegate::scanProgramName()
{
    return scanProgram;
}

void KorvaneVarden_AppDelegate::setScanProgramName(const QString &name)
{
    scanProgram = name;
}

void KorvaneVarden_AppDelegate::setupToolbar()
{
    try {
        _toolbar->setObjectName(QStringLiteral("My Document Toolbar Identifier"));
        _toolbar->setMovable(false);
        _toolbar->setFloatable(false);
        // No menu to hide it or change it.
        _toolbar->setContextMenuPolicy(Qt::PreventContextMenu);
        _toolbar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
        for (const QString &identifier : toolbarDefaultItemIdentifiers(_toolbar)) {
            if (QAction *item = toolbarItemForItemIdentifier(_toolbar, identifier, true))
                _toolbar->addAction(item);
        }
    } catch (const std::exception &fault) {
        SystemLog::log(QString::fromUtf8(fault.what()));
        for (int beep = 0; beep < 3; ++beep)
            SystemBeep::beep();
        _toolbar->clear();
        _toolbar->hide();
        return;
    }

    // The buttons follow every change of the rows, their values and the selection.
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    connect(list, &QAbstractItemModel::rowsInserted, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    connect(list, &QAbstractItemModel::rowsRemoved, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    connect(list, &QAbstractItemModel::modelReset, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    connect(list, &QAbstractItemModel::dataChanged, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    connect(list->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &KorvaneVarden_AppDelegate::validateToolbarItems);
    // Settings such as the quarantine folder change elsewhere: look again when the window comes up.
    connect(qGuiApp, &QGuiApplication::focusWindowChanged, this, &KorvaneVarden_AppDelegate::validateToolbarItems);
    validateToolbarItems();
}

QStringList KorvaneVarden_AppDelegate::toolbarDefaultItemIdentifiers(QToolBar *) const
{
    return {ToolbarItemIdentifier::reveal, ToolbarItemIdentifier::quarantine, ToolbarItemIdentifier::trash,
            ToolbarItemIdentifier::clearList};
}

QStringList KorvaneVarden_AppDelegate::toolbarAllowedItemIdentifiers(QToolBar *toolbar) const
{
    return toolbarDefaultItemIdentifiers(toolbar);
}

QAction *KorvaneVarden_AppDelegate::toolbarItemForItemIdentifier(QToolBar *toolbar, const QString &identifier, bool)
{
    struct Item
    {
        const QString &identifier;
        const char *label;
        const char *paletteLabel;
        const char *toolTip;
        const char *image;
        const char *action;
        void (KorvaneVarden_AppDelegate::*operation)(QObject *);
    };
    using Self = KorvaneVarden_AppDelegate;
    const Item items[] = {
        {ToolbarItemIdentifier::quarantine, "TOOLBAR_QUARANTINE", "TOOLBAR_QUARANTINE", "TOOLBAR_QUARANTINE_TOOLTIP",
         "Quarantine", "quarantineFile:", &Self::quarantineFile},
        {ToolbarItemIdentifier::trash, "TOOLBAR_DELETE", "TOOLBAR_DELETE", "TOOLBAR_DELETE_TOOLTIP", "Trash",
         "deleteFile:", &Self::deleteFile},
        {ToolbarItemIdentifier::reveal, "TOOLBAR_REVEAL", "TOOLBAR_REVEAL_FINDER", "TOOLBAR_REVEAL_TOOLTIP",
         "MoreInFinder", "revealInFinder:", &Self::revealInFinder},
        {ToolbarItemIdentifier::clearList, "TOOLBAR_INFECTIONLIST", "TOOLBAR_INFECTIONLIST",
         "TOOLBAR_INFECTIONLIST_TOOLTIP", "ClearList", "clearInfectedList:", &Self::clearInfectedList},
    };
    for (const Item &entry : items) {
        if (entry.identifier != identifier)
            continue;
        auto *item = new QAction(toolbar);
        item->setObjectName(identifier);
        // The button shows the label; the palette label names the item
        // wherever it is listed, as in the toolbar's overflow menu.
        item->setIconText(Localization::text(entry.label));
        item->setText(Localization::text(entry.paletteLabel));
        item->setToolTip(Localization::text(entry.toolTip));
        item->setIcon(NamedImage::imageNamed(QString::fromLatin1(entry.image)));
        item->setData(QString::fromLatin1(entry.action));
        const auto operation = entry.operation;
        connect(item, &QAction::triggered, this, [this, item, operation] { (this->*operation)(item); });
        return item;
    }
    return nullptr;
}

bool KorvaneVarden_AppDelegate::validateToolbarItem(QAction *item)
{
    return _enablingRules.validateToolbarItem(item);
}

void KorvaneVarden_AppDelegate::validateToolbarItems()
{
    for (QAction *item : _toolbar->actions())
        item->setEnabled(validateToolbarItem(item));
}

// There is no console window: console text goes to the system log.
void KorvaneVarden_AppDelegate::appendToConsole(const QString &text)
{
    SystemLog::log(QStringLiteral("appendToConsole:%1").arg(text));
}

void KorvaneVarden_AppDelegate::engineNotFound()
{
    _protectionStatus->setReason(QStringLiteral("engine"), ProtectionStatus::Off,
                                 QStringLiteral("no virus engine was found"));
    _engineStatusReactions->engineNotFound();
}

void KorvaneVarden_AppDelegate::engineFoundWithVersionString(const QString &version)
{
    _protectionStatus->clearReason(QStringLiteral("engine"));
    takeDefinitionsDate(version);
    _engineStatusReactions->engineFoundWithVersionString(version);
}

void KorvaneVarden_AppDelegate::needToUpdateDB()
{
    _engineStatusReactions->needToUpdateDB();
}

void KorvaneVarden_AppDelegate::clamdStarted()
{
    _protectionStatus->clearReason(QStringLiteral("daemon"));
    _engineStatusReactions->clamdStarted();
}

void KorvaneVarden_AppDelegate::clamdFailedToStart()
{
    _protectionStatus->setReason(QStringLiteral("daemon"), ProtectionStatus::Off,
                                 QStringLiteral("the scan daemon does not answer"));
    _engineStatusReactions->clamdFailedToStart();
}

void KorvaneVarden_AppDelegate::clamdAlreadyRunning()
{
    _protectionStatus->clearReason(QStringLiteral("daemon"));
    _engineStatusReactions->clamdAlreadyRunning();
}

void KorvaneVarden_AppDelegate::updateStarted()
{
    _engineStatusReactions->updateStarted();
}

void KorvaneVarden_AppDelegate::updateFinishedWithStatus(int status)
{
    _engineStatusReactions->updateFinishedWithStatus(status);
}

// The agent shows no scan or update progress.
void KorvaneVarden_AppDelegate::updateProgressBarWithCountOfFilesScannedSoFar(quint32)
{}
void KorvaneVarden_AppDelegate::updateProgressWithMessage(const QString &)
{}
void KorvaneVarden_AppDelegate::updateProgressWithPercentDone(double)
{}

int KorvaneVarden_AppDelegate::addToInfectedListTheFile(const QString &fileName, const QString &path,
                                                        const QString &infectionName, const QString &status)
{
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    if (list->containsFilePath(path))
        return 0;
    list->addObject({{QStringLiteral("fileName"), fileName},
                     {QStringLiteral("infectionName"), infectionName},
                     {QStringLiteral("filePath"), path},
                     {QStringLiteral("status"), status}});
    return 1;
}

void KorvaneVarden_AppDelegate::infectionFound(const QString &infectionName, const QString &inFile)
{
    // The self-test's own file is no infection of the user's.
    if (_selfTest->owns(inFile)) {
        _selfTest->found(inFile);
        return;
    }
    const QString fileName = QFileInfo(inFile).fileName();
    addToInfectedListTheFile(fileName, inFile, infectionName, QString(""));
    // Drawing the same image again for every row of a burst would hold up the window.
    // Never freed: an icon must not outlive the application object.
    static const QIcon *const alertImage = new QIcon(NamedImage::imageNamed(QStringLiteral("watchingWithAlert")));
    _throbberWatchingImage = *alertImage;
    if (_throbberStatusItem->image().cacheKey() != alertImage->cacheKey())
        _throbberStatusItem->setImage(*alertImage);
    _utils->postToNotificationCenterWithTitle(QStringLiteral("Infection Found!"),
                                              QStringLiteral("%1 infected with %2").arg(fileName, infectionName));
}

void KorvaneVarden_AppDelegate::showInfectionListWindow(QObject *)
{
    _infectionListWindow->show();
    _infectionListWindow->raise();
    _infectionListWindow->activateWindow();
}

void KorvaneVarden_AppDelegate::removeSelectedFromInfectedList(QObject *)
{
    hideFloatingPathWindow(this);
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    list->remove();
    list->clearSelection();
}

void KorvaneVarden_AppDelegate::clearInfectedList(QObject *)
{
    try {
        _infectionListWindow->dataSource()->removeAllObjects();
        _throbberWatchingImage = NamedImage::imageNamed(QStringLiteral("watching"));
        _throbberStatusItem->setImage(_throbberWatchingImage);
    } catch (const std::exception &) {
        SystemLog::log(QStringLiteral("Caught a crash here (clearInfectedList:). Hopefully we can just carry on..."));
    }
    hideFloatingPathWindow(this);
}

void KorvaneVarden_AppDelegate::userNotificationCenterDidActivateNotification()
{
    showInfectionListWindow(this);
}

void KorvaneVarden_AppDelegate::deleteFile(QObject *)
{
    _infectedFileActions->deleteFile();
}

void KorvaneVarden_AppDelegate::quarantineFile(QObject *)
{
    _infectedFileActions->quarantineFile();
}

bool KorvaneVarden_AppDelegate::quarantineFileAtIndex(int row)
{
    return _infectedFileActions->quarantineFileAtIndex(row);
}

void KorvaneVarden_AppDelegate::putBack(QObject *)
{
    _infectedFileActions->putBack();
}

void KorvaneVarden_AppDelegate::revealInFinder(QObject *)
{
    _infectedFileActions->revealInFinder();
}

int KorvaneVarden_AppDelegate::checkIfLooksLikeMailAndPromptForFile(const QString &path)
{
    return _infectedFileActions->checkIfLooksLikeMailAndPromptForFile(path);
}

void KorvaneVarden_AppDelegate::showInfectedPath(QObject *)
{
    // A click into the popup closes it, once the click is handled.
    if (QXAttachedWindow *popup = _pathPopup->showForSelectedRow())
        connect(
            popup, &QXAttachedWindow::didBecomeKey, this, [this] { hideFloatingPathWindow(nullptr); },
            Qt::QueuedConnection);
}

void KorvaneVarden_AppDelegate::hideFloatingPathWindow(QObject *)
{
    _pathPopup->hide();
}

QXAttachedWindow *KorvaneVarden_AppDelegate::attachedWindow() const
{
    return _pathPopup->attachedWindow();
}

QWidget *KorvaneVarden_AppDelegate::popupFloaterView() const
{
    return _pathPopup->popupFloaterView();
}

QLabel *KorvaneVarden_AppDelegate::popupFloaterTextField() const
{
    return _pathPopup->popupFloaterTextField();
}

// The agent counts no files.
void KorvaneVarden_AppDelegate::fileCounterReturned(qint64)
{}
