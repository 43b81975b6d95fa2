// Launch, the rest of startup once the engine answers, and the companion's update check.
#include "KorvaneVarden_AppDelegate.h"

#include "ProtectionStatus.h"
#include "events/QXFSEventStreamWatcher.h"
#include "platform/AgentStatusService.h"
#include "platform/AlertPresenter.h"
#include "platform/AppcastUpdater.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/Localization.h"
#include "platform/SleepWakeNotifier.h"
#include "platform/StatusItem.h"
#include "platform/SystemLog.h"
#include "platform/SystemVersion.h"
#include "platform/UserNotificationCenter.h"
#include "platform/Workspace.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/QXTTableView.h"

namespace {

const QString restartNotification = QStringLiteral("KorvaneVardenShouldRestart");
const QString quitNotification = QStringLiteral("KorvaneVardenShouldQuit");
int updateCheckMs = 10000;
const QUrl companionUpdateURL(QStringLiteral("Korvane://update"));

} // namespace

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
