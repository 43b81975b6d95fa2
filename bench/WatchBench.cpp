#include "WatchBench.h"

#include "BenchClock.h"
#include "BenchTable.h"
#include "FolderTree.h"
#include "ProcessStatus.h"

#include "platform/SystemLog.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLocale>
#include <QProcess>
#include <QStandardPaths>

#include <algorithm>
#include <cmath>

namespace {

constexpr int rounds = 3;
constexpr int idleSeconds = 60;
constexpr double allowedRatio = 1.5;
constexpr double allowedStallMs = 100;
constexpr double allowedIdlePercent = 0.5;

template <typename T> T median(QList<T> values)
{
    if (values.isEmpty())
        return T(-1);
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

// The figures of the probes that measured them.
template <typename Probe, typename T> QList<T> measured(const QList<Probe> &probes, T Probe::*field)
{
    QList<T> values;
    for (const Probe &probe : probes)
        if (probe.*field >= 0)
            values.append(probe.*field);
    return values;
}

QString thousands(qint64 value)
{
    return QLocale(QLocale::English).toString(value);
}

} // namespace

WatchBench::WatchBench(const QString &program, const QString &enginePath, const QString &scratch, BenchTable &table)
    : _program(program)
    , _enginePath(enginePath)
    , _scratch(scratch)
    , _table(table)
{}

void WatchBench::run(bool compareSetup, bool measureIdle, bool scale)
{
    const QList<Tree> trees{
        {QStringLiteral("wide-10k"), {100, 100}, 0, 0},         {QStringLiteral("deep-10k"), {}, 10, 1000},
        {QStringLiteral("wide-100k"), {100, 100, 10}, 0, 0},    {QStringLiteral("deep-100k"), {}, 100, 1000},
        {QStringLiteral("files-1m"), {100, 100, 10}, 0, 0, 10},
    };
    for (const Tree &tree : trees) {
        const bool idleTree = tree.name == QLatin1String("wide-100k");
        const bool scaleTree = tree.filesPerLeaf > 0;
        if (scaleTree ? !scale : !compareSetup && !(measureIdle && idleTree))
            continue;
        const QString path = _scratch + QLatin1Char('/') + tree.name;
        const qint64 folders = build(tree, path);
        if (folders < 0) {
            _table.add(tree.name + QStringLiteral(": tree made"), QStringLiteral("could not be made"),
                       QStringLiteral("made"), false);
        } else {
            if (compareSetup || scaleTree)
                compare(tree, path, folders);
            if (measureIdle && idleTree)
                idle(tree, path, folders);
        }
        FolderTree::remove(path);
    }
}

void WatchBench::runExcluded()
{
    const QString path = _scratch + QStringLiteral("/excluded-tree");
    const Tree rest{QStringLiteral("rest"), {100, 100}, 0, 0};
    const Tree excluded{QStringLiteral("node_modules"), {50, 1000}, 0, 0};
    FolderTree::remove(path);
    QDir().mkpath(path);
    const qint64 restFolders = build(rest, path + QStringLiteral("/src"));
    const qint64 excludedFolders = build(excluded, path + QStringLiteral("/node_modules"));
    if (restFolders < 0 || excludedFolders < 0) {
        _table.add(QStringLiteral("excluded tree: made"), QStringLiteral("could not be made"), QStringLiteral("made"),
                   false);
        FolderTree::remove(path);
        return;
    }
    QList<Probe> whole;
    QList<Probe> less;
    for (int round = 0; round < rounds; ++round) {
        BenchTable::progress(QStringLiteral("excluded tree: round %1 of %2").arg(round + 1).arg(rounds));
        whole.append(probeOurs(path));
        less.append(probeOurs(path, QStringLiteral("/node_modules/")));
    }
    FolderTree::remove(path);

    // The root and src with its folders; node_modules takes no watch.
    const qint64 expected = 1 + restFolders;
    const qint64 watchedLess = median(measured(less, &Probe::watched));
    const QString label = QStringLiteral("tree of %1 folders, %2 of them in an excluded folder")
                              .arg(thousands(1 + restFolders + excludedFolders), thousands(excludedFolders));
    _table.add(label + QStringLiteral(": watches"),
               QStringLiteral("%1 (without the exclusion %2)")
                   .arg(thousands(watchedLess), thousands(median(measured(whole, &Probe::watched)))),
               QStringLiteral("%1, the rest alone").arg(thousands(expected)), watchedLess == expected);
    const double setupLess = median(measured(less, &Probe::setupMs));
    const double setupWhole = median(measured(whole, &Probe::setupMs));
    // Set-up time follows the folders watched, with room for the exclusion test itself.
    const double allowed = setupWhole * 1.5 * double(expected) / double(1 + restFolders + excludedFolders);
    _table.add(label + QStringLiteral(": watch set-up, median of %1").arg(rounds),
               QStringLiteral("%1 (without the exclusion %2)")
                   .arg(BenchTable::seconds(setupLess), BenchTable::seconds(setupWhole)),
               QStringLiteral("≤ %1 (1.5 × the share of folders watched)").arg(BenchTable::seconds(allowed)),
               setupLess >= 0 && setupWhole >= 0 && setupLess <= allowed);
}

qint64 WatchBench::build(const Tree &tree, const QString &path) const
{
    BenchTable::progress(QStringLiteral("making the %1 tree in %2").arg(tree.name, path));
    FolderTree::remove(path);
    const double started = BenchClock::nowMs();
    const qint64 folders = tree.fanouts.isEmpty() ? FolderTree::makeDeep(path, tree.chains, tree.depth)
                                                  : FolderTree::makeWide(path, tree.fanouts, tree.filesPerLeaf);
    BenchTable::progress(
        QStringLiteral("%1 folders in %2 ms").arg(folders).arg(BenchClock::nowMs() - started, 0, 'f', 0));
    return folders;
}

void WatchBench::compare(const Tree &tree, const QString &path, qint64 folders)
{
    QList<Probe> ours;
    QList<Probe> theirs;
    // Alternating, so that a burst of other work on the machine hits both.
    for (int round = 0; round < rounds; ++round) {
        BenchTable::progress(QStringLiteral("%1: round %2 of %3").arg(tree.name).arg(round + 1).arg(rounds));
        ours.append(probeOurs(path));
        theirs.append(probeInotifywait(path));
    }
    const double ourSetup = median(measured(ours, &Probe::setupMs));
    const double theirSetup = median(measured(theirs, &Probe::setupMs));
    const qint64 ourHwm = median(measured(ours, &Probe::hwmKb));
    const qint64 theirHwm = median(measured(theirs, &Probe::hwmKb));
    const QList<double> gaps = measured(ours, &Probe::maxGapMs);
    const double worstGap = gaps.isEmpty() ? -1 : *std::max_element(gaps.cbegin(), gaps.cend());
    QList<qint64> added;
    for (const Probe &probe : std::as_const(ours))
        if (probe.rssKb >= 0 && probe.baselineKb >= 0)
            added.append(probe.rssKb - probe.baselineKb);
    const qint64 ourAdded = median(added);
    const qint64 theirRss = median(measured(theirs, &Probe::rssKb));
    const qint64 theirBaseline = inotifywaitBaselineKb();
    const qint64 theirAdded = theirRss >= 0 && theirBaseline >= 0 ? theirRss - theirBaseline : -1;
    const auto perFolder = [folders](qint64 kb) {
        return kb < 0 ? QStringLiteral("n/a")
                      : QStringLiteral("%1 (%2 B per folder)")
                            .arg(BenchTable::megabytes(kb))
                            .arg(double(kb) * 1024 / double(folders), 0, 'f', 0);
    };
    qsizetype fullyWatched = 0;
    for (const Probe &probe : std::as_const(ours))
        fullyWatched += probe.watched == folders;
    const qsizetype theirRuns = measured(theirs, &Probe::setupMs).size();

    const QString label = QStringLiteral("%1 (%2 folders)").arg(tree.name, thousands(folders));
    const bool timed = ourSetup >= 0 && theirSetup >= 0;
    _table.add(
        label + QStringLiteral(": watch set-up, median of %1").arg(rounds),
        QStringLiteral("%1 (inotifywait %2)").arg(BenchTable::seconds(ourSetup), BenchTable::seconds(theirSetup)),
        QStringLiteral("≤ %1 (1.5 × inotifywait)").arg(BenchTable::seconds(allowedRatio * theirSetup)),
        timed && ourSetup <= allowedRatio * theirSetup);
    // What the watch costs is judged per folder: a Qt process holds about
    // 16 MB before it watches anything, which says nothing of the watch.
    _table.add(label + QStringLiteral(": resident memory added by the watch"),
               QStringLiteral("%1 (inotifywait %2)").arg(perFolder(ourAdded), perFolder(theirAdded)),
               QStringLiteral("≤ %1 B per folder (1.5 × inotifywait)")
                   .arg(allowedRatio * double(theirAdded) * 1024 / double(folders), 0, 'f', 0),
               ourAdded >= 0 && theirAdded > 0 && double(ourAdded) <= allowedRatio * double(theirAdded));
    _table.note(
        label + QStringLiteral(": peak resident memory, whole process"),
        QStringLiteral("%1 (inotifywait %2)").arg(BenchTable::megabytes(ourHwm), BenchTable::megabytes(theirHwm)));
    _table.add(label + QStringLiteral(": longest main-thread stall, worst of %1").arg(rounds),
               QStringLiteral("%1 ms").arg(worstGap, 0, 'f', 1), QStringLiteral("≤ %1 ms").arg(allowedStallMs),
               worstGap >= 0 && worstGap <= allowedStallMs);
    _table.add(
        label + QStringLiteral(": runs that watched every folder"),
        QStringLiteral("%1 of %2 (inotifywait established %3 of %2)").arg(fullyWatched).arg(ours.size()).arg(theirRuns),
        QStringLiteral("all of ours"), fullyWatched == ours.size());

    // Once: the figures every tree shares.
    if (tree.name == QLatin1String("wide-10k")) {
        _table.note(QStringLiteral("inotifywait on an empty folder (its baseline, VmRSS)"),
                    BenchTable::megabytes(inotifywaitBaselineKb()));
        _table.note(QStringLiteral("watch process before watching (Qt baseline, VmRSS)"),
                    BenchTable::megabytes(median(measured(ours, &Probe::baselineKb))));
        _table.note(QStringLiteral("1 ms timer's longest gap with no watch (machine noise)"),
                    QStringLiteral("%1 ms").arg(median(measured(ours, &Probe::noiseGapMs)), 0, 'f', 1));
    }
}

qint64 WatchBench::inotifywaitBaselineKb()
{
    if (_inotifywaitBaselineKb < 0) {
        const QString empty = _scratch + QStringLiteral("/empty");
        QDir().mkpath(empty);
        QList<qint64> values;
        for (int round = 0; round < rounds; ++round)
            values.append(probeInotifywait(empty).rssKb);
        QDir(empty).removeRecursively();
        _inotifywaitBaselineKb = median(values);
    }
    return _inotifywaitBaselineKb;
}

WatchBench::Probe WatchBench::probeOurs(const QString &path, const QString &excludedText) const
{
    QStringList arguments{QStringLiteral("--probe-watch"), path};
    if (!excludedText.isEmpty())
        arguments << QStringLiteral("--probe-exclude") << excludedText;
    const QHash<QString, QString> values = runProbe(arguments, 600000);
    Probe probe;
    probe.setupMs = values.value(QStringLiteral("setup_ms"), QStringLiteral("-1")).toDouble();
    probe.hwmKb = values.value(QStringLiteral("hwm_kb"), QStringLiteral("-1")).toLongLong();
    probe.rssKb = values.value(QStringLiteral("rss_kb"), QStringLiteral("-1")).toLongLong();
    probe.baselineKb = values.value(QStringLiteral("baseline_rss_kb"), QStringLiteral("-1")).toLongLong();
    probe.watched = values.value(QStringLiteral("watched"), QStringLiteral("-1")).toLongLong();
    probe.maxGapMs = values.value(QStringLiteral("max_gap_ms"), QStringLiteral("-1")).toDouble();
    probe.noiseGapMs = values.value(QStringLiteral("noise_gap_ms"), QStringLiteral("-1")).toDouble();
    return probe;
}

WatchBench::Probe WatchBench::probeInotifywait(const QString &path) const
{
    Probe probe;
    const QString program = QStandardPaths::findExecutable(QStringLiteral("inotifywait"));
    if (program.isEmpty()) {
        BenchTable::progress(QStringLiteral("inotifywait is not installed (inotify-tools)"));
        return probe;
    }
    QProcess process;
    process.setReadChannel(QProcess::StandardError);
    // The same changes our watcher asks the kernel for.
    process.setArguments({QStringLiteral("-r"), QStringLiteral("-m"), QStringLiteral("-e"),
                          QStringLiteral("modify,close_write,attrib,move,create,delete,delete_self,move_self"), path});
    process.setProgram(program);
    const double started = BenchClock::nowMs();
    process.start();
    QByteArray said;
    const QDeadlineTimer deadline(600000);
    while (!said.contains("Watches established.") && !deadline.hasExpired()
           && process.state() != QProcess::NotRunning) {
        process.waitForReadyRead(int(std::min<qint64>(deadline.remainingTime(), 1000)) + 1);
        said += process.readAllStandardError();
    }
    said += process.readAllStandardError();
    if (said.contains("Watches established.")) {
        probe.setupMs = BenchClock::nowMs() - started;
        probe.hwmKb = ProcessStatus::memoryKb(process.processId(), "VmHWM");
        probe.rssKb = ProcessStatus::memoryKb(process.processId(), "VmRSS");
    } else {
        BenchTable::progress(QStringLiteral("inotifywait did not establish its watches (%1): %2")
                                 .arg(process.state() == QProcess::NotRunning
                                          ? QStringLiteral("exit status %1").arg(process.exitCode())
                                          : QStringLiteral("still running"),
                                      QString::fromLocal8Bit(said).simplified()));
    }
    process.terminate();
    if (!process.waitForFinished(10000)) {
        process.kill();
        process.waitForFinished();
    }
    return probe;
}

void WatchBench::idle(const Tree &tree, const QString &path, qint64 folders)
{
    BenchTable::progress(QStringLiteral("idle: the agent watching %1 for %2 s").arg(tree.name).arg(idleSeconds));
    const QHash<QString, QString> values =
        runProbe({QStringLiteral("--probe-idle"), path, QStringLiteral("--engine"), _enginePath,
                  QStringLiteral("--seconds"), QString::number(idleSeconds)},
                 (idleSeconds + 600) * 1000);
    const double percent = values.value(QStringLiteral("cpu_percent"), QStringLiteral("-1")).toDouble();
    const QString label = QStringLiteral("idle: agent watching %1 (%2 folders)").arg(tree.name, thousands(folders));
    _table.add(label + QStringLiteral(", CPU over %1 s").arg(idleSeconds),
               percent < 0 ? QStringLiteral("n/a")
                           : QStringLiteral("%1 % of one core (%2 s)")
                                 .arg(percent, 0, 'f', 3)
                                 .arg(values.value(QStringLiteral("cpu_s")).toDouble(), 0, 'f', 3),
               QStringLiteral("< %1 %").arg(allowedIdlePercent), percent >= 0 && percent < allowedIdlePercent);
    _table.add(label + QStringLiteral(", nothing scanned meanwhile"),
               values.value(QStringLiteral("untouched")) == QLatin1String("1") ? QStringLiteral("nothing")
                                                                               : QStringLiteral("work found"),
               QStringLiteral("nothing"), values.value(QStringLiteral("untouched")) == QLatin1String("1"));
    _table.note(label + QStringLiteral(", resident memory (VmRSS / VmHWM)"),
                QStringLiteral("%1 / %2").arg(
                    BenchTable::megabytes(values.value(QStringLiteral("rss_kb"), QStringLiteral("-1")).toLongLong()),
                    BenchTable::megabytes(values.value(QStringLiteral("hwm_kb"), QStringLiteral("-1")).toLongLong())));
    _table.note(
        label + QStringLiteral(", launch → watching"),
        BenchTable::seconds(values.value(QStringLiteral("launch_to_watching_ms"), QStringLiteral("-1")).toDouble()));
}

QHash<QString, QString> WatchBench::runProbe(const QStringList &arguments, int timeoutMs) const
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(_program, arguments);
    QHash<QString, QString> values;
    if (!process.waitForFinished(timeoutMs) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        BenchTable::progress(
            QStringLiteral("probe %1 failed: %2").arg(arguments.join(QLatin1Char(' ')), process.errorString()));
        process.kill();
        process.waitForFinished();
        return values;
    }
    for (const QByteArray &line : process.readAllStandardOutput().split('\n')) {
        const qsizetype equals = line.indexOf('=');
        if (equals > 0)
            values.insert(QString::fromUtf8(line.left(equals)), QString::fromUtf8(line.mid(equals + 1)));
    }
    return values;
}
