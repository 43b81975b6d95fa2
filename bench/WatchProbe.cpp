#include "WatchProbe.h"

#include "BenchAgent.h"
#include "BenchClock.h"
#include "EventWait.h"
#include "ProcessStatus.h"
#include "StallMeter.h"

#include "app/Dispatcher.h"
#include "app/KorvaneVarden_AppDelegate.h"
#include "platform/FileSystemWatcher.h"
#include "Tarnlib/Tarnlib/QXExclusionPolicy.h"
#include "platform/SystemLog.h"

#include <QTextStream>

#include <memory>

namespace {

void report(const QString &key, const QString &value)
{
    QTextStream out(stdout);
    out << key << '=' << value << '\n';
}

void report(const QString &key, double value)
{
    report(key, QString::number(value, 'f', 3));
}

} // namespace

int WatchProbe::watchTree(const QString &tree, const QString &excludedText)
{
    StallMeter meter;
    meter.start();
    // What this machine's scheduling alone does to a 1 ms timer.
    EventWait::forMs(300);
    const double noiseGapMs = meter.maxGapMs();
    const qint64 baselineKb = ProcessStatus::ownMemoryKb("VmRSS");

    std::unique_ptr<FileSystemWatcher> watcher(FileSystemWatcher::create());
    qint64 watched = -1;
    double finished = -1;
    QObject::connect(watcher.get(), &FileSystemWatcher::setupFinished, watcher.get(), [&](qint64 folders) {
        watched = folders;
        finished = BenchClock::nowMs();
    });
    meter.reset();
    const double started = BenchClock::nowMs();
    // The agent hands its watcher the scans' exclusions the same way.
    FileSystemWatcher::FolderTest unwatched;
    if (!excludedText.isEmpty()) {
        const QXExclusionPolicy policy({tree}, {QXExclusionPredicate::containing(excludedText)}, {});
        unwatched = [policy](const QString &folder) { return policy.excludesFolder(folder); };
    }
    if (!watcher->start({tree}, 3.0, unwatched)) {
        SystemLog::log(QStringLiteral("bench: the watcher did not start on ") + tree);
        return 1;
    }
    const bool done = EventWait::until([&] { return finished >= 0; }, 600000);
    meter.stop();
    if (!done) {
        SystemLog::log(QStringLiteral("bench: no setupFinished within 600 s for ") + tree);
        return 1;
    }
    report(QStringLiteral("setup_ms"), finished - started);
    report(QStringLiteral("watched"), QString::number(watched));
    report(QStringLiteral("baseline_rss_kb"), QString::number(baselineKb));
    report(QStringLiteral("rss_kb"), QString::number(ProcessStatus::ownMemoryKb("VmRSS")));
    report(QStringLiteral("hwm_kb"), QString::number(ProcessStatus::ownMemoryKb("VmHWM")));
    report(QStringLiteral("max_gap_ms"), meter.maxGapMs());
    report(QStringLiteral("noise_gap_ms"), noiseGapMs);
    watcher->stop();
    return 0;
}

int WatchProbe::idleAgent(const QString &tree, const QString &enginePath, int seconds)
{
    BenchAgent agent(enginePath, tree);
    const double launched = BenchClock::nowMs();
    QString error;
    if (!agent.start(&error)) {
        SystemLog::log(QStringLiteral("bench: ") + error);
        return 1;
    }
    const double watching = BenchClock::nowMs();
    // The launch's own work (the engine check and its processes) ends first.
    EventWait::forMs(2000);

    const double cpuBefore = ProcessStatus::ownCpuSeconds();
    const double wallBefore = BenchClock::nowMs();
    EventWait::forMs(seconds * 1000);
    const double cpu = ProcessStatus::ownCpuSeconds() - cpuBefore;
    const double wall = (BenchClock::nowMs() - wallBefore) / 1000.0;

    Dispatcher *dispatcher = agent.controller()->dispatcher();
    const bool untouched = dispatcher->waitingList().isEmpty() && dispatcher->readyList().isEmpty()
                           && !agent.controller()->utils()->scanning() && !agent.quitRequested();
    report(QStringLiteral("launch_to_watching_ms"), watching - launched);
    report(QStringLiteral("cpu_s"), cpu);
    report(QStringLiteral("wall_s"), wall);
    report(QStringLiteral("cpu_percent"), 100.0 * cpu / wall);
    report(QStringLiteral("rss_kb"), QString::number(ProcessStatus::ownMemoryKb("VmRSS")));
    report(QStringLiteral("hwm_kb"), QString::number(ProcessStatus::ownMemoryKb("VmHWM")));
    report(QStringLiteral("untouched"), untouched ? QStringLiteral("1") : QStringLiteral("0"));
    return 0;
}
