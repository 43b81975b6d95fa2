#include "KorvaneVarden_AppDelegate.h"

#include "Dispatcher.h"
#include "platform/ApplicationHost.h"
#include "platform/BundleInfo.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/Localization.h"
#include "platform/NamedImage.h"
#include "platform/SleepWakeNotifier.h"
#include "platform/StatusItem.h"
#include "platform/SystemLog.h"
#include "platform/SystemVersion.h"
#include "platform/UserDefaults.h"
#include "platform/Workspace.h"
#include "ui/EngineStatusReactions.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMenu>
#include <QProcess>
#include <QThreadPool>

namespace {

const QString restartNotification = QStringLiteral("KorvaneVardenShouldRestart");
const QString quitNotification = QStringLiteral("KorvaneVardenShouldQuit");
const QString hasQuitNotification = QStringLiteral("KorvaneVardenHasQuit");
const QString notificationObject = QStringLiteral("KorvaneVarden");
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

    _throbberAnimationTimer.setInterval(125);
}

KorvaneVarden_AppDelegate::~KorvaneVarden_AppDelegate()
{
    stopObserving();
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
    if (auto *columns = qobject_cast<QXTInfectedViewArrayController *>(_infectionListTableView->model()))
        columns->setColumnTitles({Localization::text("FILENAME"), Localization::text("INFECTION_NAME"),
                                  Localization::text("STATUS")});

    _throbberStatusItem->setImage(_throbberDefaultImage);
    _throbberStatusItem->setAlternateImage(_throbberAltImage);

    _toolbar = _infectionListWindow->toolbar();
    _infectedList = qobject_cast<QXTInfectedViewArrayController *>(_infectionListTableView->model());

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
    if (_startingUp) {
        _startingUp = false;
        startWatching(nullptr);
        if (_utils->readPreferenceForKey(QStringLiteral("UpdateDefsOnLaunch")).toBool())
            _utils->updateDefs();
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

void KorvaneVarden_AppDelegate::restartVarden(QObject *)
{
    const QString tool = relaunchToolPath();
    const QString workingCopy = QDir(QDir::tempPath()).filePath(QFileInfo(tool).fileName());
    QFile::remove(workingCopy);
    QFile::copy(tool, workingCopy);
    QProcess::startDetached(workingCopy, {QCoreApplication::applicationFilePath(),
                                          QString::number(QCoreApplication::applicationPid())});
    ApplicationHost::terminate();
}

void KorvaneVarden_AppDelegate::quit(QObject *)
{
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
    // Folder watching arrives with the event stream.
}

void KorvaneVarden_AppDelegate::stopWatching(QObject *)
{
    // Folder watching arrives with the event stream.
}

void KorvaneVarden_AppDelegate::restartWatching(QObject *)
{
    stopWatching(this);
    startWatching(this);
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
    _utils->updateDefs();
}

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

void KorvaneVarden_AppDelegate::infectionFound(const QString &, const QString &)
{
    // The infected-items list arrives with folder watching.
}

// The agent counts no files.
void KorvaneVarden_AppDelegate::fileCounterReturned(qint64) {}
