#include "BenchAgent.h"

#include "BenchClock.h"
#include "EventWait.h"

#include "app/Dispatcher.h"
#include "app/KorvaneVarden_AppDelegate.h"
#include "events/SCEvents.h"
#include "platform/ApplicationHost.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <algorithm>

BenchAgent::BenchAgent(const QString &enginePath, const QString &watchedFolder)
    : _enginePath(enginePath)
    , _watchedFolder(watchedFolder)
{}

BenchAgent::~BenchAgent()
{
    _agent.reset();
    ApplicationHost::setTerminateHandler({});
    SleepWakeNotifier::setSharedNotifier(nullptr);
}

bool BenchAgent::start(QString *error)
{
    _home.writeDomain(QStringLiteral("org.korvane.Korvane"),
                      {{QStringLiteral("VardenFolderArray"),
                        QVariantList{QVariantMap{{QStringLiteral("pathName"), _watchedFolder}}}}});
    SleepWakeNotifier::setSharedNotifier(&_sleep);
    // An agent that asks to quit has met something it cannot work with; the run says so.
    ApplicationHost::setTerminateHandler([this] { _quitRequested = true; });
    _agent = std::make_unique<KorvaneVarden_AppDelegate>(
        QList<QXUtils::EngineCandidate>{{_enginePath, _enginePath + QStringLiteral("/share/clamav/freshclam.log")}});
    _agent->applicationDidFinishLaunching();
    connect(_agent->infectedList(), &QAbstractItemModel::rowsInserted, this,
            [this](const QModelIndex &, int first, int last) { rowsInserted(first, last); });

    const bool ready =
        EventWait::until([this] { return _quitRequested || (_agent->readyToScan() && _agent->watching()); }, 60000);
    if (!ready || _quitRequested) {
        *error = _quitRequested ? QStringLiteral("the agent asked to quit while starting")
                                : QStringLiteral("the agent was not ready to scan and watching within 60 s");
        return false;
    }
    _agent->events()->flushEventStreamSync();
    return true;
}

bool BenchAgent::waitUntilListed(const QStringList &paths, int timeoutMs) const
{
    return EventWait::until(
        [&] {
            return std::all_of(paths.cbegin(), paths.cend(), [&](const QString &p) { return _listedAt.contains(p); });
        },
        timeoutMs);
}

bool BenchAgent::waitUntilIdle(int timeoutMs) const
{
    return EventWait::until(
        [this] {
            Dispatcher *dispatcher = _agent->dispatcher();
            return dispatcher->waitingList().isEmpty() && dispatcher->readyList().isEmpty()
                   && !_agent->utils()->scanning();
        },
        timeoutMs);
}

void BenchAgent::rowsInserted(int first, int last)
{
    const double now = BenchClock::nowMs();
    const QList<InfectedItem> items = _agent->infectedList()->arrangedObjects();
    for (int row = first; row <= last && row < items.size(); ++row)
        _listedAt.insert(items.at(row).value(QStringLiteral("filePath")).toString(), now);
}

double BenchAgent::lastListedAt(const QStringList &paths, qsizetype &listed) const
{
    listed = 0;
    double last = 0;
    for (const QString &path : paths) {
        const double at = listedAt(path);
        if (at >= 0) {
            ++listed;
            last = std::max(last, at);
        }
    }
    return last;
}
