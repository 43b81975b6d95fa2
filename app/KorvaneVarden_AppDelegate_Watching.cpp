// The watched folders and the intake of their events.
#include "KorvaneVarden_AppDelegate.h"

#include "Dispatcher.h"
#include "ProtectionStatus.h"
#include "SelfTest.h"
#include "events/QXFSEventStreamWatcher.h"
#include "events/SCEvent.h"
#include "events/SCEvents.h"
#include "platform/AlertPresenter.h"
#include "platform/BundleInfo.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/FileSystemWatcher.h"
#include "platform/Localization.h"
#include "platform/StatusItem.h"
#include "platform/SystemBeep.h"
#include "platform/SystemLog.h"
#include "platform/UserDefaults.h"
#include "platform/UserFolders.h"
#include "platform/Workspace.h"
#include "ui/ScanLogRotator.h"

#include <QAction>

#include <QMenu>
#include <functional>

namespace {

const QString openPrefsNotification = QStringLiteral("KorvaneShouldOpenPrefs");
// How long adding or removing folders waits for the companion to come up.
constexpr int companionWaitSeconds = 30;

} // namespace

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
        // The scans' own exclusions, so that a folder they leave out takes no watch.
        _events->setExcludedFolderTest(
            [policy = _utils->exclusionPolicy().detached()](const QString &folder) { return policy.excludesFolder(folder); });
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
    _cleanScanJournal->flush();
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
