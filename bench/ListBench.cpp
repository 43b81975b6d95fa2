#include "ListBench.h"

#include "BenchAgent.h"
#include "BenchClock.h"
#include "BenchTable.h"
#include "EventWait.h"
#include "StallMeter.h"

#include "app/KorvaneVarden_AppDelegate.h"
#include "ui/InfectedItemsStore.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <atomic>
#include <thread>

namespace {

constexpr int burstRows = 10000;
constexpr double stallTargetMs = 100;
constexpr int timeoutMs = 120000;

int rowsInFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return int(QJsonDocument::fromJson(file.readAll()).object().value(QStringLiteral("items")).toArray().size());
}

} // namespace

ListBench::ListBench(const QString &enginePath, const QString &scratch, BenchTable &table)
    : _enginePath(enginePath)
    , _watched(scratch + QStringLiteral("/ListWatched"))
    , _table(table)
{}

void ListBench::run()
{
    QDir().mkpath(_watched);
    BenchAgent agent(_enginePath, _watched);
    QString error;
    if (!agent.start(&error)) {
        BenchTable::progress(error);
        _table.add(QStringLiteral("list: agent starts"), error, QStringLiteral("starts"), false);
        return;
    }
    BenchTable::progress(QStringLiteral("list: %1 infected rows in one burst").arg(burstRows));
    KorvaneVarden_AppDelegate *controller = agent.controller();
    const QString listFile = InfectedItemsStore::defaultPath();

    // The file is read apart from the main thread, so that looking does not stall it.
    std::atomic<double> savedAt{-1};
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop && rowsInFile(listFile) < burstRows)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!stop)
            savedAt = BenchClock::nowMs();
    });

    StallMeter meter;
    meter.start();
    const double started = BenchClock::nowMs();
    for (int number = 0; number < burstRows; ++number) {
        QMetaObject::invokeMethod(
            controller,
            [controller, number] {
                controller->infectionFound(QStringLiteral("Korvane.Test.Eicar"),
                                           QStringLiteral("/bench/list/infected%1.com").arg(number));
            },
            Qt::QueuedConnection);
    }
    const bool listed = EventWait::until([&] { return savedAt >= 0; }, timeoutMs);
    meter.stop();
    stop = true;
    reader.join();

    _table.add(QStringLiteral("list: longest main-thread stall while %1 rows are listed").arg(burstRows),
               BenchTable::seconds(meter.maxGapMs()), QStringLiteral("≤ 0.100 s"), meter.maxGapMs() <= stallTargetMs);
    _table.add(QStringLiteral("list: burst start → list file holds all %1 rows").arg(burstRows),
               listed ? BenchTable::seconds(savedAt - started)
                      : QStringLiteral("not within %1 s").arg(timeoutMs / 1000),
               QStringLiteral("all saved"), listed);
}
