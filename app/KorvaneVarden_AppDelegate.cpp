#include "KorvaneVarden_AppDelegate.h"

#include "Dispatcher.h"
#include "events/SCEvent.h"
#include "events/SCEvents.h"
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
#include "ui/EngineStatusReactions.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/ScanLogRotator.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMenu>
#include <QProcess>
#include <QTemporaryDir>
#include <QThreadPool>

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

    _throbberAnimationTimer.setInterval(125);
    // Filled while watching; the status menu shows it once it exists.
    _foldersBeingWatchedSubmenu = new QMenu;
}

KorvaneVarden_AppDelegate::~KorvaneVarden_AppDelegate()
{
    stopObserving();
    _events.reset();
    delete _foldersBeingWatchedSubmenu;
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
    }

    _infectionListWindow->setWindowTitle(Localization::text("INFECTED_ITEMS_WINDOW_TITLE"));
    _infectionListWindow->dataSource()->setColumnTitles(
        {Localization::text("FILENAME"), Localization::text("INFECTION_NAME"), Localization::text("STATUS")});

    _throbberStatusItem->setImage(_throbberDefaultImage);
    _throbberStatusItem->setAlternateImage(_throbberAltImage);

    _toolbar = _infectionListWindow->toolbar();
    _infectedList = qobject_cast<QXTInfectedViewArrayController *>(_infectionListTableView->model());

    UserNotificationCenter *notifications = UserNotificationCenter::defaultCenter();
    notifications->setFallbackStatusItem(_throbberStatusItem);
    connect(notifications, &UserNotificationCenter::activated, this,
            &KorvaneVarden_AppDelegate::userNotificationCenterDidActivateNotification);

    observeCompanionAndWorkspace();
    _startWatchingAfterSleep = false;
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
    // The companion's update check is armed here once it exists.
}

void KorvaneVarden_AppDelegate::applicationWillTerminate()
{
    stopWatching(nullptr);
}

void KorvaneVarden_AppDelegate::startScan()
{
    _readyToScan = false;
    if (_utils->scanning())
        return;
    const QStringList itemsToScan = _dispatcher->grabItemsToScan();
    if (itemsToScan.isEmpty())
        return;
    SystemLog::log(QStringLiteral("itemsToScan.count: %1").arg(itemsToScan.size()));
    _utils->setScanning(true);
    _utils->determineQuarantineSettings();
    _utils->determineWhatToExcludeFromThisScan();
    _utils->scanFiles(itemsToScan);
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
    return relaunchTool.isEmpty() ? QCoreApplication::applicationDirPath() + QStringLiteral("/relaunch") : relaunchTool;
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
    QProcess::startDetached(program, {QCoreApplication::applicationFilePath(),
                                      QString::number(QCoreApplication::applicationPid())});
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
}

void KorvaneVarden_AppDelegate::setupEventListener()
{
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
        const QStringList excluded{UserFolders::home() + QStringLiteral("/Library/Caches/com.apple.Safari/Webpage Previews")};
        _events->setExcludedPaths(excluded);
        _events->startWatchingPaths(paths);
        _throbberStatusItem->setImage(_throbberWatchingImage);
        return;
    }

    _throbberStatusItem->setImage(_throbberDefaultImage);
    const int answer = AlertPresenter::sharedPresenter()->runModal(
        {Localization::text("VARDEN_ERROR"), Localization::text("OPEN_PREFS"), Localization::text("QUIT_BUTTON"),
         QString(), Localization::text("NOTHING_TO_WATCH_MESSAGE.")});
    if (answer == AlertPresenter::DefaultReturn)
        addRemoveFolders(nullptr, [this] { quit(nullptr); });
    else
        quit(nullptr);
}

void KorvaneVarden_AppDelegate::stopWatching(QObject *)
{
    if (_events)
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

// There is no console window: console text goes to the system log.
void KorvaneVarden_AppDelegate::appendToConsole(const QString &text)
{
    SystemLog::log(QStringLiteral("appendToConsole:%1").arg(text));
}

void KorvaneVarden_AppDelegate::engineNotFound()
{
    _engineStatusReactions->engineNotFound();
}

void KorvaneVarden_AppDelegate::engineFoundWithVersionString(const QString &version)
{
    _engineStatusReactions->engineFoundWithVersionString(version);
}

void KorvaneVarden_AppDelegate::needToUpdateDB()
{
    _engineStatusReactions->needToUpdateDB();
}

void KorvaneVarden_AppDelegate::clamdStarted()
{
    _engineStatusReactions->clamdStarted();
}

void KorvaneVarden_AppDelegate::clamdFailedToStart()
{
    _engineStatusReactions->clamdFailedToStart();
}

void KorvaneVarden_AppDelegate::clamdAlreadyRunning()
{
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
void KorvaneVarden_AppDelegate::updateProgressBarWithCountOfFilesScannedSoFar(quint32) {}
void KorvaneVarden_AppDelegate::updateProgressWithMessage(const QString &) {}
void KorvaneVarden_AppDelegate::updateProgressWithPercentDone(double) {}

int KorvaneVarden_AppDelegate::addToInfectedListTheFile(const QString &fileName, const QString &path,
                                                        const QString &infectionName, const QString &status)
{
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    for (const InfectedItem &item : list->arrangedObjects()) {
        if (item.value(QStringLiteral("filePath")).toString() == path)
            return 0;
    }
    list->addObject({{QStringLiteral("fileName"), fileName},
                     {QStringLiteral("infectionName"), infectionName},
                     {QStringLiteral("filePath"), path},
                     {QStringLiteral("status"), status}});
    return 1;
}

void KorvaneVarden_AppDelegate::infectionFound(const QString &infectionName, const QString &inFile)
{
    const QString fileName = QFileInfo(inFile).fileName();
    addToInfectedListTheFile(fileName, inFile, infectionName, QString(""));
    _throbberWatchingImage = NamedImage::imageNamed(QStringLiteral("watchingWithAlert"));
    _throbberStatusItem->setImage(_throbberWatchingImage);
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
    QXTInfectedViewArrayController *list = _infectionListWindow->dataSource();
    list->remove();
    list->clearSelection();
}

void KorvaneVarden_AppDelegate::clearInfectedList(QObject *)
{
    _infectionListWindow->dataSource()->removeAllObjects();
    _throbberWatchingImage = NamedImage::imageNamed(QStringLiteral("watching"));
    _throbberStatusItem->setImage(_throbberWatchingImage);
}

void KorvaneVarden_AppDelegate::userNotificationCenterDidActivateNotification()
{
    showInfectionListWindow(this);
}

// Not built yet: the file actions.
void KorvaneVarden_AppDelegate::deleteFile(QObject *) {}
void KorvaneVarden_AppDelegate::quarantineFile(QObject *) {}
bool KorvaneVarden_AppDelegate::quarantineFileAtIndex(int) { return false; }
void KorvaneVarden_AppDelegate::putBack(QObject *) {}
void KorvaneVarden_AppDelegate::revealInFinder(QObject *) {}
int KorvaneVarden_AppDelegate::checkIfLooksLikeMailAndPromptForFile(const QString &) { return -1; }

// Not built yet: the path popup.
void KorvaneVarden_AppDelegate::showInfectedPath(QObject *) {}
void KorvaneVarden_AppDelegate::hideFloatingPathWindow(QObject *) {}

// The agent counts no files.
void KorvaneVarden_AppDelegate::fileCounterReturned(qint64) {}
