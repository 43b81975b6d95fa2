// Speed and memory figures of the agent against the real daemon, printed as
// one table; bench/run builds and runs it.
//
//   agent_bench --scratch DIR [--only detection,overflow,scale,watch,exclude,idle,list,ondemand,rescan,journal]
//
// DIR holds the watched folders and trees (tmpfs is best). The program also
// runs itself in a process of its own for the watch and idle figures
// (--probe-watch TREE [--probe-exclude TEXT], --probe-idle TREE --engine PREFIX --seconds N).

#include "BenchTable.h"
#include "DetectionBench.h"
#include "ListBench.h"
#include "OnDemandBench.h"
#include "OverflowBench.h"
#include "RescanBench.h"
#include "WatchBench.h"
#include "WatchProbe.h"

#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/SystemLog.h"
#include "tests/support/EngineFixture.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QTextStream>

#include <memory>

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // The watch probe stands for the watcher alone, without the GUI's weight.
    bool watchProbe = false;
    for (int i = 1; i < argc; ++i)
        watchProbe = watchProbe || QByteArray(argv[i]) == "--probe-watch";
    std::unique_ptr<QCoreApplication> app =
        watchProbe ? std::make_unique<QCoreApplication>(argc, argv) : std::make_unique<QApplication>(argc, argv);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Speed and memory figures of the agent."));
    parser.addHelpOption();
    const QCommandLineOption scratch(QStringLiteral("scratch"), QStringLiteral("Folder for watched files and trees."),
                                     QStringLiteral("dir"));
    const QCommandLineOption only(
        QStringLiteral("only"),
        QStringLiteral(
            "Comma-separated: detection, overflow, scale, watch, exclude, idle, list, ondemand, rescan, journal."),
        QStringLiteral("parts"),
        QStringLiteral("detection,overflow,scale,watch,exclude,idle,list,ondemand,rescan,journal"));
    const QCommandLineOption probeWatch(QStringLiteral("probe-watch"), QStringLiteral("Child: watch tree."),
                                        QStringLiteral("tree"));
    const QCommandLineOption probeExclude(QStringLiteral("probe-exclude"),
                                          QStringLiteral("Child: leave out folders holding text."),
                                          QStringLiteral("text"));
    const QCommandLineOption probeIdle(QStringLiteral("probe-idle"), QStringLiteral("Child: the agent idling on tree."),
                                       QStringLiteral("tree"));
    const QCommandLineOption engine(QStringLiteral("engine"), QStringLiteral("Engine prefix for --probe-idle."),
                                    QStringLiteral("prefix"));
    const QCommandLineOption seconds(QStringLiteral("seconds"), QStringLiteral("Idle time for --probe-idle."),
                                     QStringLiteral("n"), QStringLiteral("60"));
    parser.addOptions({scratch, only, probeWatch, probeExclude, probeIdle, engine, seconds});
    parser.process(*app);

    if (parser.isSet(probeWatch))
        return WatchProbe::watchTree(parser.value(probeWatch), parser.value(probeExclude));

    BundleInfo::setBundleIdentifier(QStringLiteral(KORVANE_AGENT_ID));
    Localization::install(app.get());
    QApplication::setQuitOnLastWindowClosed(false);

    if (parser.isSet(probeIdle))
        return WatchProbe::idleAgent(parser.value(probeIdle), parser.value(engine), parser.value(seconds).toInt());

    const QString scratchDir = parser.value(scratch);
    if (scratchDir.isEmpty() || !QDir(scratchDir).exists()) {
        SystemLog::log(QStringLiteral("bench: --scratch must name an existing folder"));
        return 2;
    }
    const QStringList parts = parser.value(only).split(QLatin1Char(','), Qt::SkipEmptyParts);

    SystemLog::log(QStringLiteral("bench: laying out the engine and starting its daemon"));
    EngineFixture daemon(EngineFixture::Layout::InstallScript);
    if (!daemon.isReady()) {
        SystemLog::log(QStringLiteral("bench: no engine: ") + daemon.errorString());
        return 2;
    }

    BenchTable table;
    const QString root = QDir(scratchDir).absolutePath();
    if (parts.contains(QLatin1String("detection")))
        DetectionBench(daemon.enginePath(), root, table).run();
    if (parts.contains(QLatin1String("overflow")))
        OverflowBench(daemon.enginePath(), root, table).run();
    if (parts.contains(QLatin1String("scale")))
        DetectionBench(daemon.enginePath(), root, table).runScale();
    WatchBench watch(QCoreApplication::applicationFilePath(), daemon.enginePath(), root, table);
    watch.run(parts.contains(QLatin1String("watch")), parts.contains(QLatin1String("idle")),
              parts.contains(QLatin1String("scale")));
    if (parts.contains(QLatin1String("exclude")))
        watch.runExcluded();
    if (parts.contains(QLatin1String("list")))
        ListBench(daemon.enginePath(), root, table).run();
    if (parts.contains(QLatin1String("ondemand")))
        OnDemandBench(daemon.enginePath(), root, table).run();
    if (parts.contains(QLatin1String("rescan")))
        RescanBench(root, table).run();
    if (parts.contains(QLatin1String("journal")))
        RescanBench(root, table).measureJournalCost();

    QTextStream out(stdout);
    table.print(out);
    return table.failures() == 0 ? 0 : 1;
}
