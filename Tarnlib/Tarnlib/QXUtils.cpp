#include "QXUtils.h"

#include "QXEngineChecker.h"
#include "QXFileCounter.h"
#include "QXSavedSearch.h"
#include "QXScanner.h"
#include "QXUpdater.h"
#include "QXUtilsDelegate.h"
#include "platform/UserFolders.h"
#include "platform/UserDefaultsController.h"
#include "platform/UserNotificationCenter.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QThreadPool>
#include <QTimer>

QXUtils::QXUtils(QXUtilsDelegate *delegate, QObject *parent)
    : QXUtils(delegate, defaultEngineCandidates(), parent)
{}

QXUtils::QXUtils(QXUtilsDelegate *delegate, const QList<EngineCandidate> &engineCandidates, QObject *parent)
    : QObject(parent)
    , _delegate(delegate)
    , _savedSearchEntryLimit(QXSavedSearch::defaultEntryLimit)
{
    _useClamd = _delegate ? _delegate->useClamd() : true;
    registerDefaultsAndDomains();

    _enginePath.clear();
    _updateLogPath.clear();
    _scanning = false;
    _updating = false;
    _theOperationQueue = new QThreadPool(this);
    _exclusionStringsForRootVolScan = {QStringLiteral("/Volumes"), QStringLiteral("/dev"), QStringLiteral("/net")};
    _launchAgentsDir = UserFolders::launchAgents();
    _emailDirPaths = UserFolders::mailStores();

    const QString logs = UserFolders::logs();
    if (!QFileInfo(logs).isDir())
        QDir().mkpath(logs);

    makeEngineCandidateLists(engineCandidates);

    _remoteServiceTimer.setSingleShot(true);
    _remoteServiceTimer.setInterval(defaultRemoteServiceRetryMs);
    connect(&_remoteServiceTimer, &QTimer::timeout, this, &QXUtils::askRemoteService);
}

QXUtils::~QXUtils()
{
    // A count may be waiting for the main thread to take its total.
    _delegate = nullptr;
    for (const std::weak_ptr<QXFileCounter> &weak : std::as_const(_fileCountersInFlight)) {
        if (const std::shared_ptr<QXFileCounter> counter = weak.lock())
            counter->cancel();
    }
    _theOperationQueue->clear();
    while (!_theOperationQueue->waitForDone(10))
        QCoreApplication::sendPostedEvents(this);

    // A worker that ends its thread delivers what is on its way to the main
    // thread, and no report may reach a delegate that is going away.
    for (QXWorkerThread *worker : std::initializer_list<QXWorkerThread *>{_theScanner, _theUpdater, _theChecker}) {
        if (worker)
            worker->stopReporting();
    }
    delete _theScanner;
    delete _theUpdater;
    delete _theChecker;
}

void QXUtils::setup()
{
    _preferences->setValue(_enginePath, QStringLiteral("PathToClamav"));
    _preferences->setValue(_updateLogPath, QStringLiteral("PathToUpdateLog"));
    syncPrefs();

    // Workers ask these on their own threads, so they are copied here and
    // before each run rather than asked of the delegate there.
    _wantScanStatusUpdates = _delegate && _delegate->wantScanStatusUpdates();
    _wantUpdatePercentages = _delegate && _delegate->wantUpdatePercentages();

    _theChecker = new QXEngineChecker(this);
    _theChecker->start();
    _theUpdater = new QXUpdater(this);
    _theUpdater->start();
    // The scanner asks for progress and the daemon setting once, now.
    _theScanner = new QXScanner(this);
    _theScanner->start();
}

void QXUtils::postToNotificationCenterWithTitle(const QString &title, const QString &message)
{
    if (message.isNull())
        return;
    UserNotificationCenter *center = UserNotificationCenter::defaultCenter();
    if (center->canDeliver())
        center->deliverNotification(title, message);
}

bool QXUtils::wantScanStatusUpdates() const
{
    return _wantScanStatusUpdates;
}

bool QXUtils::wantUpdatePercentages() const
{
    return _wantUpdatePercentages;
}
