#include "OnDemandBench.h"

#include "BenchClock.h"
#include "BenchTable.h"
#include "EventWait.h"

#include "companion/OnDemandScan.h"
#include "platform/BundleInfo.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/QuietUtilsDelegate.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <algorithm>

namespace {

constexpr int scanFolders = 100;
constexpr int filesPerScanFolder = 100;
constexpr int infectedFiles = 20;
constexpr int countFolders = 1000;
constexpr int filesPerCountFolder = 100;
constexpr int rounds = 3;
constexpr int timeoutMs = 600000;
constexpr double scanRatioTarget = 1.2;
constexpr double countCostTarget = 1.1;

bool writeFile(const QString &path, const QByteArray &contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

// folders × files; every (files × folders / infected)th file is infected
// when infected > 0, the others hold size bytes that vary from file to file.
bool makeFolder(const QString &root, int folders, int files, int infected, int size)
{
    const int every = infected > 0 ? folders * files / infected : 0;
    for (int folder = 0, number = 0; folder < folders; ++folder) {
        const QString dir = QStringLiteral("%1/%2").arg(root).arg(folder);
        if (!QDir().mkpath(dir))
            return false;
        for (int file = 0; file < files; ++file, ++number) {
            const bool bad = every > 0 && number % every == 0;
            QByteArray contents = bad ? EngineFixture::eicarContents() : QByteArray(size, char('a' + number % 26));
            if (!bad && size > 0)
                contents.replace(0, 4, QByteArrayView(reinterpret_cast<const char *>(&number), 4));
            if (!writeFile(QStringLiteral("%1/%2.%3").arg(dir).arg(file).arg(bad ? "com" : "dat"), contents))
                return false;
        }
    }
    return true;
}

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.isEmpty() || values.first() < 0 ? -1 : values.at(values.size() / 2);
}

QString ratio(double a, double b)
{
    return a >= 0 && b > 0 ? QStringLiteral("%1 ×").arg(a / b, 0, 'f', 2) : QStringLiteral("n/a");
}

// Owns the side count and keeps the moment it returned.
class SideCount : public QuietUtilsDelegate
{
public:
    double returnedAt = -1;
    void fileCounterReturned(qint64) override { returnedAt = BenchClock::nowMs(); }
};

} // namespace

OnDemandBench::OnDemandBench(const QString &enginePath, const QString &scratch, BenchTable &table)
    : _enginePath(enginePath)
    , _root(scratch + QStringLiteral("/OnDemand"))
    , _table(table)
{}

void OnDemandBench::run()
{
    const int scanFiles = scanFolders * filesPerScanFolder;
    const int countFiles = countFolders * filesPerCountFolder;
    const QString folder = _root + QStringLiteral("/Scan");
    const QString counted = _root + QStringLiteral("/Count");
    BenchTable::progress(
        QStringLiteral("on demand: writing %1 files to scan and %2 to count").arg(scanFiles).arg(countFiles));
    if (!makeFolder(folder, scanFolders, filesPerScanFolder, infectedFiles, 8192)
        || !makeFolder(counted, countFolders, filesPerCountFolder, 0, 0)) {
        _table.add(QStringLiteral("on demand: files written"), QStringLiteral("no"), QStringLiteral("written"), false);
        return;
    }

    // Korvane's settings, in a home of their own.
    FreshPreferences home;
    const QString identifier = BundleInfo::bundleIdentifier();
    BundleInfo::setBundleIdentifier(BundleInfo::companionIdentifier());

    // Rounds alternate, so that a busy moment of the machine falls on both.
    QList<double> scanMs, multiMs, withCountMs;
    QList<Scan> scans, withCounts;
    int multiFound = 0;
    for (int round = 0; round < rounds; ++round) {
        BenchTable::progress(QStringLiteral("on demand: round %1 of %2").arg(round + 1).arg(rounds));
        multiMs << multiscan(folder, &multiFound);
        scans << scan(folder);
        scanMs << scans.last().ms;
        withCounts << scan(folder, counted);
        withCountMs << withCounts.last().ms;
    }
    BundleInfo::setBundleIdentifier(identifier);

    const double scanMedian = median(scanMs), multiMedian = median(multiMs), withCountMedian = median(withCountMs);
    const bool allFound =
        std::all_of(scans.begin(), scans.end(), [](const Scan &s) { return s.infected == infectedFiles; });
    const bool barsFull = std::all_of(scans.begin(), scans.end(), [](const Scan &s) { return s.barFull; })
                          && std::all_of(withCounts.begin(), withCounts.end(), [](const Scan &s) { return s.barFull; });
    const bool countedFirst =
        std::all_of(scans.begin(), scans.end(), [](const Scan &s) { return s.countedMs >= 0 && s.countedMs < s.ms; });
    const bool extraCountedFirst = std::all_of(withCounts.begin(), withCounts.end(), [](const Scan &s) {
        return s.extraCountedMs >= 0 && s.extraCountedMs < s.ms;
    });
    QString errors;
    for (const Scan &s : scans + withCounts)
        errors += s.error.isEmpty() ? QString() : s.error + QLatin1Char(' ');
    if (!errors.isEmpty())
        BenchTable::progress(QStringLiteral("on demand: ") + errors);

    const QString median3 = QStringLiteral(", median of %1").arg(rounds);
    _table.add(QStringLiteral("on demand: scan of %1 files (daemon road)").arg(scanFiles) + median3,
               BenchTable::seconds(scanMedian), QStringLiteral("finds all %1").arg(infectedFiles), allFound);
    _table.add(QStringLiteral("on demand: clamdscan --multiscan --fdpass of the folder") + median3,
               BenchTable::seconds(multiMedian), QStringLiteral("finds all %1").arg(infectedFiles),
               multiFound == infectedFiles ? BenchTable::Verdict::Info : BenchTable::Verdict::Fail);
    _table.add(QStringLiteral("on demand: ratio scan / multiscan"), ratio(scanMedian, multiMedian),
               QStringLiteral("≤ %1 ×").arg(scanRatioTarget, 0, 'f', 1),
               scanMedian >= 0 && multiMedian > 0 && scanMedian <= scanRatioTarget * multiMedian);
    _table.add(QStringLiteral("on demand: progress bar reaches 100 %"),
               barsFull ? QStringLiteral("every scan") : QStringLiteral("not always"), QStringLiteral("every scan"),
               barsFull);
    QList<double> countedMs;
    for (const Scan &s : std::as_const(scans))
        countedMs << s.countedMs;
    _table.add(QStringLiteral("on demand: count of the %1 files, start → total").arg(scanFiles) + median3,
               BenchTable::seconds(median(countedMs)), QStringLiteral("before the scan ends"), countedFirst);
    _table.add(QStringLiteral("on demand: scan with %1 more files counted beside it").arg(countFiles) + median3,
               BenchTable::seconds(withCountMedian), QStringLiteral("the side count ends first"), extraCountedFirst);
    _table.add(QStringLiteral("on demand: ratio scan with / without the %1-file count").arg(countFiles),
               ratio(withCountMedian, scanMedian), QStringLiteral("≤ %1 ×").arg(countCostTarget, 0, 'f', 1),
               withCountMedian >= 0 && scanMedian > 0 && withCountMedian <= countCostTarget * scanMedian);
    QDir(_root).removeRecursively();
}

OnDemandBench::Scan OnDemandBench::scan(const QString &folder, const QString &extraCount) const
{
    Scan result;
    OnDemandScan scanner({{_enginePath, _enginePath + QStringLiteral("/share/clamav/freshclam.log")}});
    bool done = false;
    double started = 0;
    QObject::connect(&scanner, &OnDemandScan::progress, [&](qint64 scanned, qint64 total, const QString &) {
        if (total >= 0 && result.countedMs < 0)
            result.countedMs = BenchClock::nowMs() - started;
        result.barFull = total > 0 && scanned == total;
    });
    QObject::connect(&scanner, &OnDemandScan::finished, [&](const OnDemandScan::Summary &summary) {
        result.ms = BenchClock::nowMs() - started;
        result.infected = summary.infected;
        result.error = summary.error;
        done = true;
    });
    SideCount side;
    QXUtils counter(&side, {});
    started = BenchClock::nowMs();
    if (!extraCount.isEmpty())
        counter.countFiles({extraCount});
    if (!scanner.start({folder}) || !EventWait::until([&] { return done; }, timeoutMs)) {
        result.ms = -1;
        return result;
    }
    if (!extraCount.isEmpty() && EventWait::until([&] { return side.returnedAt >= 0; }, timeoutMs))
        result.extraCountedMs = side.returnedAt - started;
    return result;
}

double OnDemandBench::multiscan(const QString &folder, int *found) const
{
    QProcess process;
    const double started = BenchClock::nowMs();
    process.start(_enginePath + QStringLiteral("/bin/clamdscan"),
                  {QStringLiteral("--no-summary"), QStringLiteral("--multiscan"), QStringLiteral("--fdpass"), folder});
    if (!process.waitForFinished(timeoutMs) || process.exitStatus() != QProcess::NormalExit || process.exitCode() > 1) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    const double elapsed = BenchClock::nowMs() - started;
    *found = int(process.readAllStandardOutput().count(" FOUND\n"));
    return elapsed;
}
