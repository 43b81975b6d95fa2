#include "KorvaneVarden_AppDelegate.h"

#include "Dispatcher.h"
#include "ProtectionStatus.h"
#include "events/SCEvents.h"
#include "platform/NamedImage.h"
#include "platform/StatusItem.h"
#include "platform/SystemLog.h"
#include "ui/EngineStatusReactions.h"
#include "ui/InfectedFileActions.h"
#include "ui/InfectedItemsStore.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/PathPopup.h"
#include "ui/QXAttachedWindow.h"
#include "ui/QXTInfectedViewArrayController.h"
#include "ui/ScanLogRotator.h"

#include <QMenu>
#include <QThreadPool>

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
    setupRescan();
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

bool KorvaneVarden_AppDelegate::respondsTo(Optional operation) const
{
    // The engine's newer-version notice has no reaction here.
    return operation != Optional::NeedToUpdateEngineDisplayVersionString;
}

// There is no console window: console text goes to the system log.
void KorvaneVarden_AppDelegate::appendToConsole(const QString &text)
{
    SystemLog::log(QStringLiteral("appendToConsole:%1").arg(text));
}

// The agent counts no files.
void KorvaneVarden_AppDelegate::fileCounterReturned(qint64)
{}
