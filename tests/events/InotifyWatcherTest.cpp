#include "KernelSetting.h"
#include "WatchedFolder.h"

#include "platform/FileSystemWatcher.h"
#include "tests/support/LogCapture.h"

#include <QDirIterator>
#include <QSignalSpy>
#include <QTimer>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>

namespace {

constexpr quint32 created = 0x100;

// Every event a watcher hands out, merged per path over all batches.
struct Collected
{
    explicit Collected(FileSystemWatcher *watcher)
    {
        QObject::connect(watcher, &FileSystemWatcher::eventsOccurred, watcher, [this](const QList<FileSystemEvent> &batch) {
            for (const FileSystemEvent &event : batch)
                flags[event.path] |= event.flags;
        });
    }
    bool has(const QString &path, quint32 bits) const { return (flags.value(path) & bits) == bits; }

    QHash<QString, quint32> flags;
};

// The inotify watches the processes of this user hold right now.
qint64 watchesInUse()
{
    qint64 count = 0;
    QDirIterator processes(QStringLiteral("/proc"), QDir::Dirs | QDir::NoDotAndDotDot);
    while (processes.hasNext()) {
        const QFileInfo process(processes.next());
        if (process.ownerId() != ::geteuid())
            continue;
        QDirIterator descriptors(process.filePath() + QStringLiteral("/fdinfo"), QDir::Files);
        while (descriptors.hasNext()) {
            QFile info(descriptors.next());
            if (info.open(QIODevice::ReadOnly))
                count += info.readAll().count("\ninotify wd:");
        }
    }
    return count;
}

} // namespace

TEST(InotifyWatcherTest, SettingUpALargeTreeLeavesTheCallingThreadRunning)
{
    // Memory-backed where there is such a place: making and removing 20,000 folders on a busy disk is slow.
    const QString shared = QStringLiteral("/dev/shm");
    WatchedFolder folder(QFileInfo(shared).isWritable() ? shared : QString());
    qint64 folders = 1;
    const auto makeFolder = [&](const QString &relative) {
        folders += ::mkdir(QFile::encodeName(folder.filePath(relative)).constData(), 0700) == 0 ? 1 : 0;
    };
    for (int a = 0; a < 20; ++a) {
        makeFolder(QString::number(a));
        for (int b = 0; b < 20; ++b) {
            makeFolder(QStringLiteral("%1/%2").arg(a).arg(b));
            for (int c = 0; c < 50; ++c)
                makeFolder(QStringLiteral("%1/%2/%3").arg(a).arg(b).arg(c));
        }
    }
    ASSERT_EQ(folders, 1 + 20 + 20 * 20 + 20 * 20 * 50);

    std::unique_ptr<FileSystemWatcher> watcher(FileSystemWatcher::create());
    int ticks = 0;
    int ticksWhenSetUp = -1;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] { ++ticks; });
    QSignalSpy setUp(watcher.get(), &FileSystemWatcher::setupFinished);
    QObject::connect(watcher.get(), &FileSystemWatcher::setupFinished, [&] { ticksWhenSetUp = ticks; });
    ticker.start(1);

    ASSERT_TRUE(watcher->start({folder.path()}, 0.2, {}));
    ASSERT_TRUE(eventually([&] { return setUp.count() == 1; }, 120000));

    // A setup that held this thread would have let one overdue tick through at most.
    EXPECT_GT(ticksWhenSetUp, 1);
    EXPECT_EQ(setUp.at(0).at(0).toLongLong(), folders);

    Collected collected(watcher.get());
    const QString deep = folder.writeFile(QStringLiteral("19/19/49/last.txt"));
    EXPECT_TRUE(eventually([&] { return collected.has(deep, created); }));

    // Stopped in the middle of its walk, a second watcher lets go without finishing it.
    std::unique_ptr<FileSystemWatcher> interrupted(FileSystemWatcher::create());
    QSignalSpy interruptedSetUp(interrupted.get(), &FileSystemWatcher::setupFinished);
    ASSERT_TRUE(interrupted->start({folder.path()}, 0.2, {}));
    interrupted->stop();
    EXPECT_FALSE(interrupted->isWatching());
    QCoreApplication::processEvents();
    EXPECT_EQ(interruptedSetUp.count(), 0);
}

TEST(InotifyWatcherTest, WatchLimitIsLoggedOnceAndWatchedFoldersKeepReporting)
{
    WatchedFolder folder;
    for (int i = 0; i < 40; ++i)
        folder.makeFolder(QStringLiteral("d%1/inner").arg(i));
    KernelSetting limit(QStringLiteral("/proc/sys/fs/inotify/max_user_watches"));
    const qint64 lowLimit = watchesInUse() + 10;
    LogCapture log;
    std::unique_ptr<FileSystemWatcher> watcher(FileSystemWatcher::create());
    Collected collected(watcher.get());

    if (!limit.set(lowLimit))
        GTEST_SKIP() << limit.error().toStdString();
    const bool started = watcher->start({folder.path()}, 0.2, {});
    if (started)
        watcher->flushSync();
    limit.restore();
    ASSERT_TRUE(started);

    EXPECT_EQ(log.lines().filter(QStringLiteral("inotify watch limit reached")),
              QStringList(QStringLiteral("inotify watch limit reached (fs.inotify.max_user_watches = %1): some folders "
                                         "under %2 are not watched; raise it with: sysctl fs.inotify.max_user_watches=524288")
                              .arg(lowLimit)
                              .arg(folder.path())));

    const QString file = folder.writeFile(QStringLiteral("still-watched.txt"));
    EXPECT_TRUE(eventually([&] { return collected.has(file, created); }));
}

TEST(InotifyWatcherTest, IdentifiersFollowTheClockAndNeverRepeat)
{
    using namespace std::chrono;
    const auto before = quint64(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
    const quint64 first = FileSystemWatcher::nextEventId();
    const quint64 second = FileSystemWatcher::nextEventId();
    // Growing with the clock keeps them growing across restarts of the program too.
    EXPECT_GE(first, before);
    EXPECT_GT(second, first);
}
