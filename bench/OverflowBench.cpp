#include "OverflowBench.h"

#include "BenchAgent.h"
#include "BenchClock.h"
#include "BenchTable.h"
#include "DetectionBench.h"
#include "EventWait.h"

#include "platform/InotifyWatcher.h"
#include "platform/SystemLog.h"
#include "tests/support/EngineFixture.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QLocale>
#include <QMutex>
#include <QMutexLocker>
#include <QPointer>
#include <QRegularExpression>
#include <QSet>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

constexpr int folders = 100;
constexpr int existingPerFolder = 1000;
constexpr int newPerFolder = 200;
constexpr int newFiles = folders * newPerFolder;
constexpr int infectedEvery = newFiles / 10;
constexpr double allowedMultiscanShare = 1.2;

QString thousands(qint64 value)
{
    return QLocale(QLocale::English).toString(value);
}

bool writeWhole(const QString &path, const QByteArray &contents)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool written = ::write(fd, contents.constData(), size_t(contents.size())) == contents.size();
    return ::close(fd) == 0 && written;
}

QString newFile(const QString &root, int i)
{
    return QStringLiteral("%1/d%2/new-%3.txt").arg(root).arg(i % folders, 3, 10, QLatin1Char('0')).arg(i);
}

// Passes the agent's log on to standard error, as the run's log filter expects,
// and keeps the lines about the overflow.
class OverflowLog
{
public:
    OverflowLog()
    {
        _previous = SystemLog::setSink([this](const QString &line) {
            if (line.contains(QLatin1String("inotify queue overflow"))) {
                QMutexLocker locker(&_lock);
                _lines.append(line);
            }
            std::fprintf(stderr, "agent_bench: %s\n", line.toUtf8().constData());
        });
    }
    ~OverflowLog() { SystemLog::setSink(_previous); }
    QStringList lines() const
    {
        QMutexLocker locker(&_lock);
        return _lines;
    }

private:
    mutable QMutex _lock;
    QStringList _lines;
    SystemLog::Sink _previous;
};

} // namespace

OverflowBench::OverflowBench(const QString &enginePath, const QString &scratch, BenchTable &table)
    : _enginePath(enginePath)
    , _scratch(scratch)
    , _table(table)
{}

void OverflowBench::run()
{
    const QString root = _scratch + QStringLiteral("/overflow");
    const QString alone = _scratch + QStringLiteral("/overflow-new");
    QDir(root).removeRecursively();
    QDir(alone).removeRecursively();
    BenchTable::progress(QStringLiteral("overflow: %1 existing files in %2 folders")
                             .arg(thousands(folders * existingPerFolder))
                             .arg(folders));
    for (int d = 0; d < folders; ++d) {
        const QString folder = QStringLiteral("%1/d%2").arg(root).arg(d, 3, 10, QLatin1Char('0'));
        QDir().mkpath(folder);
        QDir().mkpath(QStringLiteral("%1/d%2").arg(alone).arg(d, 3, 10, QLatin1Char('0')));
        for (int i = 0; i < existingPerFolder; ++i)
            writeWhole(QStringLiteral("%1/old-%2.txt").arg(folder).arg(i), "existing file\n");
    }
    // Older than the start by more than the watcher's margin for coarse time stamps.
    EventWait::forMs(3000);

    QPointer<InotifyWatcher> watcher;
    FileSystemWatcher::setFactory([&watcher](QObject *parent) {
        auto *made = new InotifyWatcher(parent);
        watcher = made;
        return made;
    });
    OverflowLog log;
    BenchAgent agent(_enginePath, root);
    QString error;
    const bool started = agent.start(&error) && agent.waitUntilIdle(120000) && watcher;
    FileSystemWatcher::setFactory({});
    if (!started) {
        _table.add(QStringLiteral("overflow: agent started"), error, QStringLiteral("started"), false);
        return;
    }

    // What the intake hands on, by file: a folder stands for every file in it.
    QSet<QString> handed;
    QObject::connect(watcher, &FileSystemWatcher::eventsOccurred, watcher, [&](const QList<FileSystemEvent> &batch) {
        for (const FileSystemEvent &event : batch) {
            const quint32 f = event.flags;
            const bool isDir = f & FileSystemWatcher::ItemIsDir;
            if (f & FileSystemWatcher::ItemRemoved)
                continue;
            if (!(f & (FileSystemWatcher::ItemCreated | FileSystemWatcher::ItemRenamed))
                && !((f & FileSystemWatcher::ItemModified) && (!isDir || (f & FileSystemWatcher::MustScanSubDirs))))
                continue;
            if (!isDir) {
                handed.insert(event.path);
                continue;
            }
            QDirIterator files(event.path, QDir::Files | QDir::Hidden | QDir::NoSymLinks, QDirIterator::Subdirectories);
            while (files.hasNext())
                handed.insert(files.next());
        }
    });

    BenchTable::progress(
        QStringLiteral("overflow: %1 new files while the agent does not read its queue").arg(thousands(newFiles)));
    watcher->holdReading(true);
    QStringList infected;
    const QByteArray eicar = EngineFixture::eicarContents();
    const double writing = BenchClock::nowMs();
    for (int i = 0; i < newFiles; ++i) {
        const bool isInfected = i % infectedEvery == infectedEvery / 2;
        if (isInfected)
            infected.append(newFile(root, i));
        writeWhole(newFile(root, i), isInfected ? eicar : QByteArray("new file\n"));
    }
    const double lastClosed = BenchClock::nowMs();
    watcher->holdReading(false);

    agent.waitUntilListed(infected, 600000);
    agent.waitUntilIdle(600000);
    qsizetype listed = 0;
    const double lastListed = agent.lastListedAt(infected, listed);
    qsizetype existingHanded = 0;
    for (const QString &path : std::as_const(handed))
        existingHanded += path.contains(QLatin1String("/old-"));
    const QStringList overflowLines = log.lines();
    const bool overflowed =
        !overflowLines.filter(QLatin1String("inotify queue overflowed: looking for what changed")).isEmpty();
    double agentWalkMs = -1;
    for (const QString &line : overflowLines) {
        const QRegularExpressionMatch took =
            QRegularExpression(QStringLiteral("changed files found in (\\d+) ms")).match(line);
        if (took.hasMatch())
            agentWalkMs = took.captured(1).toDouble();
    }

    BenchTable::progress(QStringLiteral("overflow: reading the metadata of the whole folder"));
    qint64 entries = 0;
    const double walkMs = metadataWalkMs(root, &entries);

    // The same new files apart, for the daemon's own scan of them alone.
    BenchTable::progress(QStringLiteral("overflow: the daemon's multiscan of the new files alone"));
    for (int i = 0; i < newFiles; ++i) {
        const bool isInfected = i % infectedEvery == infectedEvery / 2;
        writeWhole(newFile(alone, i), isInfected ? eicar : QByteArray("new file\n"));
    }
    QStringList multiFound;
    const double multiMs = DetectionBench::clamdscan(
        _enginePath, {QStringLiteral("--multiscan"), QStringLiteral("--fdpass"), alone}, &multiFound);

    const double completionMs = listed == infected.size() ? lastListed - lastClosed : NAN;
    const double target = walkMs + allowedMultiscanShare * multiMs;
    _table.add(QStringLiteral("overflow: the kernel's queue overflowed"),
               overflowed ? QStringLiteral("yes") : QStringLiteral("no"), QStringLiteral("yes"), overflowed);
    _table.note(QStringLiteral("overflow: writing %1 new files").arg(thousands(newFiles)),
                BenchTable::seconds(lastClosed - writing));
    _table.add(QStringLiteral("overflow: infected files listed"),
               QStringLiteral("%1 of %2").arg(listed).arg(infected.size()), QStringLiteral("all"),
               listed == infected.size());
    _table.add(
        QStringLiteral("overflow: files handed to the daemon"), thousands(handed.size()),
        QStringLiteral("≈ %1, not %2").arg(thousands(newFiles), thousands(newFiles + folders * existingPerFolder)),
        handed.size() >= newFiles && handed.size() <= newFiles + newFiles / 20);
    _table.add(QStringLiteral("overflow: existing files handed to the daemon"), thousands(existingHanded),
               QStringLiteral("0"), existingHanded == 0);
    _table.add(QStringLiteral("overflow: last close → every infected file listed"), BenchTable::seconds(completionMs),
               QStringLiteral("≤ %1 (walk + 1.2 × multiscan of the new files)").arg(BenchTable::seconds(target)),
               walkMs >= 0 && multiMs >= 0 && completionMs <= target);
    _table.note(QStringLiteral("overflow: metadata walk of %1 entries").arg(thousands(entries)),
                BenchTable::seconds(walkMs));
    _table.note(QStringLiteral("overflow: the agent's own walk after the overflow"), BenchTable::seconds(agentWalkMs));
    _table.add(QStringLiteral("overflow: clamdscan --multiscan --fdpass of the new files alone"),
               BenchTable::seconds(multiMs), QStringLiteral("finds all %1").arg(infected.size()),
               multiMs >= 0 && multiFound.size() == infected.size() ? BenchTable::Verdict::Info
                                                                    : BenchTable::Verdict::Fail);
    QDir(root).removeRecursively();
    QDir(alone).removeRecursively();
}

double OverflowBench::metadataWalkMs(const QString &root, qint64 *entries)
{
    const double started = BenchClock::nowMs();
    QStringList pending{root};
    while (!pending.isEmpty()) {
        const QByteArray path = QFile::encodeName(pending.takeLast());
        DIR *dir = ::opendir(path.constData());
        if (!dir)
            return -1;
        while (const dirent *entry = ::readdir(dir)) {
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
                continue;
            struct stat status;
            if (::fstatat(::dirfd(dir), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            ++*entries;
            if (S_ISDIR(status.st_mode))
                pending.append(QFile::decodeName(path + '/' + entry->d_name));
        }
        ::closedir(dir);
    }
    return BenchClock::nowMs() - started;
}
