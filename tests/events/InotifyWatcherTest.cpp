#include "WatchedFolder.h"

#include "platform/FileSystemWatcher.h"
#include "platform/InotifyWatcher.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingNotificationCenter.h"

#include <QSignalSpy>
#include <QTimer>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <memory>

namespace {

constexpr quint32 created = 0x100;
constexpr quint32 modified = 0x1000;

// Every event a watcher hands out, merged per path over all batches.
struct Collected
{
    explicit Collected(FileSystemWatcher *watcher)
    {
        QObject::connect(watcher, &FileSystemWatcher::eventsOccurred, watcher,
                         [this](const QList<FileSystemEvent> &batch) {
                             for (const FileSystemEvent &event : batch)
                                 flags[event.path] |= event.flags;
                         });
    }
    bool has(const QString &path, quint32 bits) const { return (flags.value(path) & bits) == bits; }

    QHash<QString, quint32> flags;
};

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

TEST(InotifyWatcherTest, WatchLimitIsToldToTheUserOncePerStartAndWatchedFoldersKeepReporting)
{
    WatchedFolder folder;
    for (int i = 0; i < 40; ++i)
        folder.makeFolder(QStringLiteral("d%1/inner").arg(i));
    LogCapture log;
    RecordingNotificationCenter notifications;
    InotifyWatcher watcher;
    watcher.setWatchBudget(10);
    Collected collected(&watcher);

    for (int start = 1; start <= 2; ++start) {
        ASSERT_TRUE(watcher.start({folder.path()}, 0.2, {}));
        watcher.flushSync();
        // A folder made now finds no room either: still one notice.
        folder.makeFolder(QStringLiteral("late%1").arg(start));
        watcher.flushSync();
        const QString file = folder.writeFile(QStringLiteral("still-watched-%1.txt").arg(start));
        EXPECT_TRUE(eventually([&] { return collected.has(file, created); }));
        QCoreApplication::processEvents();
        ASSERT_EQ(notifications.delivered.size(), start);
        EXPECT_TRUE(notifications.delivered.last().second.contains(QStringLiteral("fs.inotify.max_user_watches")))
            << notifications.delivered.last().second.toStdString();
        EXPECT_TRUE(notifications.delivered.last().second.contains(folder.path()));
        EXPECT_EQ(log.lines().filter(QStringLiteral("inotify watch limit reached")).size(), start)
            << log.lines().join('\n').toStdString();
        watcher.stop();
    }
}

TEST(InotifyWatcherTest, AfterTheQueueOverflowedWhatChangedSinceItWasLastReadEmptyIsReportedFileByFile)
{
    // Memory-backed where there is such a place, for the thousands of files that overflow the queue.
    const QString shared = QStringLiteral("/dev/shm");
    WatchedFolder folder(QFileInfo(shared).isWritable() ? shared : QString());
    InotifyWatcher watcher;
    ASSERT_TRUE(watcher.start({folder.path()}, 0.2, {}));
    watcher.flushSync();
    const QString older = folder.writeFile(QStringLiteral("sub/older.txt"));
    QTest::qWait(2500);
    // Everything up to here was delivered: nothing older can be among what an overflow loses.
    watcher.flushSync();
    Collected collected(&watcher);
    QFile limit(QStringLiteral("/proc/sys/fs/inotify/max_queued_events"));
    ASSERT_TRUE(limit.open(QIODevice::ReadOnly));
    const int queueLength = limit.readAll().trimmed().toInt();

    watcher.holdReading(true);
    for (int i = 0; i < queueLength / 2 + 100; ++i)
        folder.writeFile(QStringLiteral("flood-%1.txt").arg(i));
    const QString lost = folder.writeFile(QStringLiteral("sub/lost.txt"));
    watcher.holdReading(false);
    watcher.flushSync();

    EXPECT_TRUE(collected.has(lost, modified));
    EXPECT_FALSE(collected.flags.contains(older));
    EXPECT_FALSE(collected.flags.contains(folder.path())) << "the folder was handed over whole";
}
