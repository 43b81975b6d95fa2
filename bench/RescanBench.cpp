#include "RescanBench.h"

#include "BenchAgent.h"
#include "BenchClock.h"
#include "BenchTable.h"
#include "EventWait.h"
#include "ProcessStatus.h"

#include "Tarnlib/Tarnlib/QXUtils.h"
#include "app/CleanScanJournal.h"
#include "app/DefinitionsRescan.h"
#include "app/KorvaneVarden_AppDelegate.h"
#include "tests/support/EngineFixture.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <algorithm>

namespace {

constexpr int rescanFiles = 10000;
// One file in a hundred is known only to the new definitions.
constexpr int detectedEvery = 100;
constexpr int journalEntries = 100000;
constexpr double tickMs = 1000;
const QByteArray laterMark = "KORVANE-BENCH-KNOWN-ONLY-AFTER-THE-UPDATE-7f31c2";

double writeWhole(const QString &path, const QByteArray &contents)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(contents) != contents.size())
        return -1;
    file.close();
    return BenchClock::nowMs();
}

} // namespace

RescanBench::RescanBench(const QString &scratch, BenchTable &table)
    : _watched(scratch + QStringLiteral("/RescanWatched"))
    , _table(table)
{}

void RescanBench::run()
{
    BenchTable::progress(QStringLiteral("rescan: an engine of its own, with an update that knows more"));
    EngineFixture engine(EngineFixture::Layout::InstallScript);
    if (!engine.isReady() || !engine.offerUpdate("Korvane.Bench.Later:0:*:" + laterMark.toHex() + '\n', 900003)) {
        _table.add(QStringLiteral("rescan: engine with a second signature set"), engine.errorString(),
                   QStringLiteral("ready"), false);
        return;
    }
    QDir().mkpath(_watched + QStringLiteral("/rescan"));
    QDir().mkpath(_watched + QStringLiteral("/fresh"));
    BenchAgent agent(engine.enginePath(), _watched);
    QString error;
    if (!agent.start(&error)) {
        _table.add(QStringLiteral("rescan: agent starts"), error, QStringLiteral("starts"), false);
        return;
    }
    KorvaneVarden_AppDelegate *controller = agent.controller();

    // The usual close → row of one infected file, with nothing else to do.
    double usualMs = 0;
    for (int i = 0; i < 3; ++i) {
        EventWait::forMs(int(QRandomGenerator::global()->bounded(1000)));
        const QString path = QStringLiteral("%1/fresh/before-%2.com").arg(_watched).arg(i);
        const double closed = writeWhole(path, EngineFixture::eicarContents());
        if (agent.waitUntilListed({path}, 60000))
            usualMs = std::max(usualMs, agent.listedAt(path) - closed);
    }

    BenchTable::progress(QStringLiteral("rescan: %1 files scanned clean, one in %2 known to the update")
                             .arg(rescanFiles)
                             .arg(detectedEvery));
    QStringList detected;
    for (int i = 0; i < rescanFiles; ++i) {
        const QString path = QStringLiteral("%1/rescan/f%2.txt").arg(_watched).arg(i, 5, 10, QLatin1Char('0'));
        const bool later = i % detectedEvery == detectedEvery / 2;
        writeWhole(path, (later ? laterMark : QByteArray("clean file ")) + QByteArray::number(i) + '\n');
        if (later)
            detected << path;
    }
    EventWait::until([&] { return controller->cleanScanJournal()->count() >= rescanFiles; }, 600000);
    agent.waitUntilIdle(120000);
    if (controller->cleanScanJournal()->count() < rescanFiles) {
        _table.add(QStringLiteral("rescan: files journaled clean"),
                   QString::number(controller->cleanScanJournal()->count()), QString::number(rescanFiles), false);
        return;
    }

    controller->updateDefs(nullptr);
    EventWait::until([&] { return controller->definitionsRescan()->hasPending(); }, 120000);
    // From its first batch in the engine, once the daemon has the new definitions.
    EventWait::until([&] { return controller->utils()->scanning(); }, 180000);
    const double started = BenchClock::nowMs();
    EventWait::forMs(1000);
    const QString fresh = _watched + QStringLiteral("/fresh/during.com");
    const double freshClosed = writeWhole(fresh, EngineFixture::eicarContents());
    EventWait::until([&] { return !controller->definitionsRescan()->hasPending() && !controller->utils()->scanning(); },
                     600000);
    const double rescanMs = BenchClock::nowMs() - started;
    agent.waitUntilListed(detected + QStringList{fresh}, 60000);
    const qsizetype listed =
        std::count_if(detected.cbegin(), detected.cend(), [&](const QString &p) { return agent.listedAt(p) >= 0; });
    const double freshMs = agent.listedAt(fresh) >= 0 ? agent.listedAt(fresh) - freshClosed : -1;

    BenchTable::progress(QStringLiteral("rescan: clamdscan --multiscan --fdpass of the same files"));
    QProcess multiscan;
    const double multiStarted = BenchClock::nowMs();
    multiscan.start(engine.enginePath() + QStringLiteral("/bin/clamdscan"),
                    {QStringLiteral("--no-summary"), QStringLiteral("--multiscan"), QStringLiteral("--fdpass"),
                     _watched + QStringLiteral("/rescan")});
    multiscan.waitForFinished(600000);
    const double multiMs = BenchClock::nowMs() - multiStarted;
    const qsizetype multiFound = multiscan.readAllStandardOutput().count(" FOUND\n");

    _table.add(QStringLiteral("rescan: files the new definitions detect, listed"),
               QStringLiteral("%1 of %2").arg(listed).arg(detected.size()), QStringLiteral("all"),
               listed == detected.size());
    _table.add(QStringLiteral("rescan: time for %1 journal files").arg(rescanFiles), BenchTable::seconds(rescanMs),
               QStringLiteral("≤ %1 (1.2 × multiscan)").arg(BenchTable::seconds(1.2 * multiMs)),
               rescanMs <= 1.2 * multiMs);
    _table.note(QStringLiteral("rescan: clamdscan --multiscan --fdpass of the same files (%1 found)").arg(multiFound),
                BenchTable::seconds(multiMs));
    _table.add(QStringLiteral("rescan: new infected file written during it, close → row"),
               freshMs < 0 ? QStringLiteral("not listed") : BenchTable::seconds(freshMs),
               QStringLiteral("≤ %1 (usual %2 + 1 tick)")
                   .arg(BenchTable::seconds(usualMs + tickMs), BenchTable::seconds(usualMs)),
               freshMs >= 0 && freshMs <= usualMs + tickMs);
}

void RescanBench::measureJournalCost()
{
    BenchTable::progress(QStringLiteral("journal: %1 entries").arg(journalEntries));
    QTemporaryDir dir;
    const QString folder = dir.filePath(QStringLiteral("state"));
    double writeMs = 0;
    {
        CleanScanJournal journal(folder);
        journal.load();
        QList<CleanScanJournal::Entry> entries;
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        for (int i = 0; i < journalEntries; ++i) {
            CleanScanJournal::Entry entry;
            entry.path = QStringLiteral("/home/someone/Downloads/project-%1/build/output/file-%2.bin")
                             .arg(i / 100, 4, 10, QLatin1Char('0'))
                             .arg(i, 6, 10, QLatin1Char('0'));
            entry.device = 2049;
            entry.inode = 5000000 + quint64(i);
            entry.size = 10000 + quint64(i);
            entry.mtimeNs = entry.ctimeNs = now * 1000000 - i;
            entry.scannedAt = now - i;
            entries << entry;
        }
        const double started = BenchClock::nowMs();
        // As the agent records them: a batch of a few hundred at a time.
        for (qsizetype at = 0; at < entries.size(); at += 500)
            journal.record(entries.mid(at, 500));
        journal.flush();
        writeMs = BenchClock::nowMs() - started;
    }
    const qint64 diskBytes = QFileInfo(folder + QStringLiteral("/clean-scans.journal")).size();
    const qint64 before = ProcessStatus::ownMemoryKb("VmRSS");
    const double started = BenchClock::nowMs();
    CleanScanJournal loaded(folder);
    loaded.load();
    const double loadMs = BenchClock::nowMs() - started;
    const qint64 memoryKb = ProcessStatus::ownMemoryKb("VmRSS") - before;

    _table.add(QStringLiteral("journal: entries read back"), QString::number(loaded.count()),
               QString::number(journalEntries), loaded.count() == journalEntries);
    _table.note(QStringLiteral("journal: memory at %1 entries (loaded)").arg(journalEntries),
                QStringLiteral("%1 (%2 bytes an entry)")
                    .arg(BenchTable::megabytes(memoryKb))
                    .arg(memoryKb * 1024 / journalEntries));
    _table.note(QStringLiteral("journal: disk at %1 entries").arg(journalEntries),
                QStringLiteral("%1 (%2 bytes an entry)")
                    .arg(BenchTable::megabytes(diskBytes / 1024))
                    .arg(diskBytes / journalEntries));
    _table.note(QStringLiteral("journal: recording them in batches of 500, then reading them at start"),
                QStringLiteral("%1 / %2").arg(BenchTable::seconds(writeMs), BenchTable::seconds(loadMs)));
}
