#include "WatchedFolder.h"

#include "events/SCEvent.h"
#include "events/SCEventListenerProtocol.h"
#include "events/SCEvents.h"
#include "tests/support/LogCapture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSet>
#include <QThread>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

namespace {

// The agent's flag bits, as the tests expect them.
namespace Flag {
constexpr qint32 rootChanged = 0x20, created = 0x100, removed = 0x200, inodeMetaMod = 0x400, renamed = 0x800,
                 modified = 0x1000, isFile = 0x10000, isDir = 0x20000;
} // namespace Flag

// A listener that keeps every event it is given.
struct RecordingListener : SCEventListenerProtocol
{
    void pathWatcherEventOccurred(SCEvents *pathWatcher, SCEvent *eventOccurred) override
    {
        calledOffMainThread = calledOffMainThread || QThread::currentThread() != qApp->thread();
        senders.append(pathWatcher);
        events.append(*eventOccurred);
    }
    // Some event for path carries every bit of flags.
    bool saw(const QString &path, qint32 flags = 0) const
    {
        return std::any_of(events.begin(), events.end(), [&](const SCEvent &event) {
            return event.eventPath() == path && (event.eventFlags() & flags) == flags;
        });
    }
    QString dump() const
    {
        QStringList lines;
        for (const SCEvent &event : events)
            lines.append(event.description() + " 0x" + QString::number(event.eventFlags(), 16));
        return lines.join('\n');
    }

    QList<SCEvent> events;
    QList<SCEvents *> senders;
    bool calledOffMainThread = false;
};

} // namespace

class SCEventsWatchingTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        events.setDelegate(&listener);
        events.setNotificationLatency(0.2);
    }

    // Starts and waits until the trees are watched, so what follows is seen.
    void watch(const QStringList &paths)
    {
        ASSERT_TRUE(events.startWatchingPaths(paths));
        ASSERT_TRUE(events.flushEventStreamSync());
    }

    // Waits for an event on path that carries every bit of flags.
    ::testing::AssertionResult saw(const QString &path, qint32 flags = 0)
    {
        if (eventually([&] { return listener.saw(path, flags); }))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "nothing for " << path.toStdString() << " with flags 0x"
                                             << QString::number(flags, 16).toStdString() << " among\n"
                                             << listener.dump().toStdString();
    }

    // Once a file written after the changes is reported, no event so far may be unwanted.
    ::testing::AssertionResult noneAfterSentinel(const std::function<bool(const QString &path)> &unwanted)
    {
        const QString sentinel = folder.writeFile("sentinel.txt");
        if (::testing::AssertionResult seen = saw(sentinel); !seen)
            return seen;
        if (!events.flushEventStreamSync())
            return ::testing::AssertionFailure() << "flush failed";
        for (const SCEvent &event : listener.events)
            if (unwanted(event.eventPath()))
                return ::testing::AssertionFailure() << "unwanted " << event.description().toStdString();
        return ::testing::AssertionSuccess();
    }

    static bool under(const QString &path, const QString &folder)
    {
        return path == folder || path.startsWith(folder + '/');
    }

    WatchedFolder folder;
    RecordingListener listener;
    SCEvents events;
};

TEST_F(SCEventsWatchingTest, CreatedFileArrivesAsOneEventWithAllItsChangesAndWithoutADoubleSlash)
{
    // A trailing slash on the watched path must not show in the reported ones.
    watch({folder.path() + "/"});
    const QString file = folder.writeFile("report.pdf");

    EXPECT_TRUE(saw(file, Flag::created | Flag::modified | Flag::isFile));
    EXPECT_TRUE(noneAfterSentinel([](const QString &path) { return path.contains("//"); }));
    ASSERT_EQ(std::count_if(listener.events.begin(), listener.events.end(),
                            [&](const SCEvent &event) { return event.eventPath() == file; }),
              1)
        << listener.dump().toStdString();
    EXPECT_FALSE(listener.saw(file, Flag::isDir));
    EXPECT_EQ(listener.senders.first(), &events);
    EXPECT_FALSE(listener.calledOffMainThread);
}

TEST_F(SCEventsWatchingTest, FileInANewFolderIsReportedEvenWhenMadeBeforeTheFoldersWatchExisted)
{
    watch({folder.path()});
    // One shell command, faster than the watch on each new folder can be set up.
    ASSERT_EQ(QProcess::execute("/bin/sh", {"-c", "cd \"$0\" && mkdir -p a/b/c && echo x > a/b/c/f", folder.path()}),
              0);
    EXPECT_TRUE(saw(folder.filePath("a/b/c/f"), Flag::created | Flag::isFile));
    EXPECT_TRUE(saw(folder.filePath("a"), Flag::created | Flag::isDir));
    EXPECT_TRUE(saw(folder.filePath("a/b/c"), Flag::created | Flag::isDir));
    // Now that the new folders are watched, later files are reported as any other.
    EXPECT_TRUE(saw(folder.writeFile("a/b/c/payload.exe"), Flag::created | Flag::modified | Flag::isFile));
}

TEST_F(SCEventsWatchingTest, TreeMovedInFromOutsideIsListedAndWatched)
{
    WatchedFolder outside;
    outside.writeFile("tree/top.txt");
    outside.writeFile("tree/sub/deep.txt");
    watch({folder.path()});

    ASSERT_TRUE(QDir().rename(outside.filePath("tree"), folder.filePath("tree")));
    EXPECT_TRUE(saw(folder.filePath("tree/sub/deep.txt"), Flag::created | Flag::isFile));
    EXPECT_TRUE(saw(folder.filePath("tree"), Flag::renamed | Flag::isDir));
    EXPECT_TRUE(saw(folder.filePath("tree/top.txt"), Flag::created | Flag::isFile));
    EXPECT_TRUE(saw(folder.filePath("tree/sub"), Flag::created | Flag::isDir));
    EXPECT_TRUE(saw(folder.writeFile("tree/sub/later.txt"), Flag::created | Flag::modified));
}

TEST_F(SCEventsWatchingTest, RenameReportsTheOldAndTheNewPathAndARenamedFolderIsWatchedUnderItsNewName)
{
    const QString before = folder.writeFile("before.txt");
    folder.makeFolder("old/sub");
    watch({folder.path()});

    ASSERT_TRUE(QFile::rename(before, folder.filePath("after.txt")));
    EXPECT_TRUE(saw(folder.filePath("after.txt"), Flag::renamed | Flag::isFile));
    EXPECT_TRUE(saw(before, Flag::renamed | Flag::isFile));

    ASSERT_TRUE(QDir().rename(folder.filePath("old"), folder.filePath("new")));
    ASSERT_TRUE(saw(folder.filePath("new"), Flag::renamed | Flag::isDir));
    EXPECT_TRUE(saw(folder.filePath("old"), Flag::renamed | Flag::isDir));
    EXPECT_TRUE(saw(folder.writeFile("new/sub/f.txt"), Flag::created | Flag::modified));
    EXPECT_FALSE(listener.saw(folder.filePath("old/sub/f.txt")));
}

TEST_F(SCEventsWatchingTest, ChangesOutsideTheTreeAreNotReportedThroughAMovedOutFolderOrALink)
{
    WatchedFolder outside;
    folder.makeFolder("leaving/sub");
    outside.makeFolder("target");
    ASSERT_TRUE(QFile::link(outside.filePath("target"), folder.filePath("early-link")));
    watch({folder.path()});
    ASSERT_TRUE(QFile::link(outside.filePath("target"), folder.filePath("late-link")));
    ASSERT_TRUE(saw(folder.filePath("late-link"), Flag::created));
    ASSERT_TRUE(QDir().rename(folder.filePath("leaving"), outside.filePath("leaving")));
    ASSERT_TRUE(saw(folder.filePath("leaving"), Flag::renamed | Flag::isDir));

    outside.writeFile("leaving/sub/elsewhere.txt");
    outside.writeFile("target/through-link.txt");
    EXPECT_TRUE(noneAfterSentinel(
        [](const QString &path) { return path.endsWith("elsewhere.txt") || path.endsWith("through-link.txt"); }));
}

TEST_F(SCEventsWatchingTest, RemovalIsReportedAndAnAttributeChangeIsNotAModification)
{
    const QString file = folder.writeFile("doomed.txt");
    const QString emptied = folder.makeFolder("emptied");
    const QString script = folder.writeFile("script.sh");
    watch({folder.path()});
    // Made moments before the start, the files may be reported once by the first walk.
    listener.events.clear();

    ASSERT_TRUE(QFile::remove(file));
    ASSERT_TRUE(QDir().rmdir(emptied));
    ASSERT_TRUE(QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    EXPECT_TRUE(saw(file, Flag::removed | Flag::isFile));
    EXPECT_TRUE(saw(emptied, Flag::removed | Flag::isDir));
    ASSERT_TRUE(saw(script, Flag::inodeMetaMod | Flag::isFile));
    EXPECT_TRUE(
        noneAfterSentinel([&](const QString &path) { return path == script && listener.saw(path, Flag::modified); }));
}

TEST_F(SCEventsWatchingTest, ExcludedFolderDropsItsSubtreeAndPrefixSiblingsUnlessSubfoldersCount)
{
    const QString excluded = folder.makeFolder("Webpage Previews");
    events.setExcludedPaths({excluded});
    watch({folder.path()});

    // The dropped changes come first in the batch; what follows them still arrives.
    folder.writeFile("Webpage Previews/a.png");
    folder.writeFile("Webpage Previews/deep/b.png");
    folder.writeFile("Webpage Previews2/c.png");
    QFile::setPermissions(excluded, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    EXPECT_TRUE(
        noneAfterSentinel([&](const QString &path) { return under(path, excluded) || under(path, excluded + "2"); }));

    // Without ignoring subfolders only the exact path is dropped.
    ASSERT_TRUE(events.stopWatchingPaths());
    listener.events.clear();
    events.setIgnoreEventsFromSubDirs(false);
    watch({folder.path()});
    QFile::setPermissions(excluded, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ExeGroup);
    EXPECT_TRUE(saw(folder.writeFile("Webpage Previews/d.png"), Flag::created));
    EXPECT_TRUE(saw(folder.writeFile("Webpage Previews2/e.png"), Flag::created));
    EXPECT_TRUE(noneAfterSentinel([&](const QString &path) { return path == excluded; }));
}

TEST_F(SCEventsWatchingTest, StartingTwiceAnswersFalseAndTheFirstStreamKeepsRunning)
{
    WatchedFolder other;
    watch({folder.path()});

    EXPECT_FALSE(events.startWatchingPaths({other.path()}));
    EXPECT_TRUE(events.isWatchingPaths());
    EXPECT_EQ(events.watchedPaths(), QStringList{folder.path()});
    EXPECT_TRUE(saw(folder.writeFile("still.txt"), Flag::created));

    ASSERT_TRUE(events.stopWatchingPaths());
    watch({other.path()});
    EXPECT_TRUE(saw(other.writeFile("again.txt"), Flag::created));
    // Identifiers keep growing across streams.
    EXPECT_GT(listener.events.last().eventId(), listener.events.first().eventId());
}

TEST_F(SCEventsWatchingTest, NoEventsArriveAfterStop)
{
    // A second, slower stream on the same folder tells when the first would have spoken.
    RecordingListener witness;
    SCEvents slower;
    slower.setDelegate(&witness);
    slower.setNotificationLatency(0.4);
    ASSERT_TRUE(slower.startWatchingPaths({folder.path()}));
    ASSERT_TRUE(slower.flushEventStreamSync());
    events.setNotificationLatency(0.1);
    watch({folder.path()});

    folder.writeFile("pending.txt");
    EXPECT_TRUE(events.stopWatchingPaths());
    EXPECT_FALSE(events.isWatchingPaths());
    EXPECT_FALSE(events.stopWatchingPaths());
    EXPECT_TRUE(events.streamDescription().isNull());
    const QString after = folder.writeFile("after.txt");

    ASSERT_TRUE(eventually([&] { return witness.saw(after); }));
    EXPECT_TRUE(listener.events.isEmpty()) << listener.dump().toStdString();
}

TEST_F(SCEventsWatchingTest, MissingOrRemovedRootIsLoggedWhileTheOtherRootsGoOn)
{
    LogCapture log;
    const QString missing = folder.filePath("not-there");
    const QString doomed = folder.makeFolder("doomed");
    const QString staying = folder.makeFolder("staying");
    watch({missing, doomed, staying});
    EXPECT_EQ(log.count("cannot watch " + missing + ": No such file or directory"), 1)
        << log.lines().join('\n').toStdString();

    ASSERT_TRUE(QDir().rmdir(doomed));
    EXPECT_TRUE(saw(doomed, Flag::rootChanged));
    EXPECT_TRUE(log.contains("cannot watch " + doomed + ": it was removed")) << log.lines().join('\n').toStdString();
    EXPECT_TRUE(saw(folder.writeFile("staying/f.txt"), Flag::created));

    // Nothing but missing folders still makes a running stream; nothing at all does not.
    SCEvents lonely, idle;
    EXPECT_TRUE(lonely.startWatchingPaths({missing}));
    EXPECT_TRUE(lonely.isWatchingPaths());
    EXPECT_FALSE(idle.startWatchingPaths({}));
    EXPECT_FALSE(idle.isWatchingPaths());
    EXPECT_FALSE(idle.flushEventStreamSync());
}

TEST_F(SCEventsWatchingTest, IdentifiersGrowAndTheLastEventIsTheLastRecordOfTheLatestBatchUnlessThatWasDropped)
{
    events.setExcludedPaths({folder.filePath("skipped")});
    // Batches end only at the flushes below.
    events.setNotificationLatency(60);
    watch({folder.path()});
    EXPECT_FALSE(events.lastEvent().has_value());

    folder.writeFile("a.txt");
    const QString b = folder.writeFile("b.txt");
    ASSERT_TRUE(events.flushEventStreamSync());
    ASSERT_TRUE(events.lastEvent().has_value());
    EXPECT_EQ(events.lastEvent()->eventPath(), b);
    EXPECT_EQ(events.lastEvent()->eventId(), listener.events.last().eventId());

    const QString c = folder.writeFile("c.txt");
    folder.makeFolder("skipped");
    ASSERT_TRUE(events.flushEventStreamSync());
    EXPECT_TRUE(listener.saw(c)) << listener.dump().toStdString();
    for (qsizetype i = 1; i < listener.events.size(); ++i)
        EXPECT_GT(listener.events.at(i).eventId(), listener.events.at(i - 1).eventId())
            << listener.dump().toStdString();
    EXPECT_EQ(events.lastEvent().value_or(SCEvent()).eventPath(), b);

    // Without a delegate nobody hears of the batch, yet its last event is kept.
    events.setDelegate(nullptr);
    const QString d = folder.writeFile("d.txt");
    ASSERT_TRUE(events.flushEventStreamSync());
    EXPECT_EQ(events.lastEvent().value_or(SCEvent()).eventPath(), d);
    EXPECT_FALSE(listener.saw(d));
    EXPECT_GT(events.lastEvent().value_or(SCEvent()).eventId(), listener.events.last().eventId());
}

TEST_F(SCEventsWatchingTest, FilesArrivingSteadilyDoNotHoldBackTheirBatch)
{
    events.setNotificationLatency(1.0);
    watch({folder.path()});
    // A new file five times within each latency, for several latencies.
    for (int i = 0; i < 40 && listener.events.isEmpty(); ++i) {
        folder.writeFile(QStringLiteral("steady-%1.txt").arg(i));
        QTest::qWait(200);
    }
    EXPECT_FALSE(listener.events.isEmpty()) << "no batch went out while files kept arriving";
}

TEST_F(SCEventsWatchingTest, DelegateMayStopTheStreamWhileBeingCalled)
{
    struct StoppingListener : RecordingListener
    {
        void pathWatcherEventOccurred(SCEvents *pathWatcher, SCEvent *eventOccurred) override
        {
            RecordingListener::pathWatcherEventOccurred(pathWatcher, eventOccurred);
            pathWatcher->stopWatchingPaths();
        }
    } stopper;
    events.setDelegate(&stopper);
    events.setNotificationLatency(0.05);
    watch({folder.path()});
    // This thread holds still while the watcher closes two batches, so that both
    // are handed over in one go and the second is still to come when the stop comes.
    folder.writeFile("one.txt");
    QThread::msleep(500);
    folder.writeFile("two.txt");
    QThread::msleep(500);

    ASSERT_TRUE(eventually([&] { return !events.isWatchingPaths(); }));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    // The batch in hand is finished, as the original stream does.
    EXPECT_GE(stopper.events.size(), 1);
    EXPECT_FALSE(events.flushEventStreamSync());
}

TEST_F(SCEventsWatchingTest, EveryFileWrittenOrMovedInOnceStartAnsweredIsReportedWhileOlderFilesAreNot)
{
    // Large enough that the first walk is still going when the writing below begins.
    constexpr int fanout = 45;
    WatchedFolder outside;
    for (int i = 0; i < fanout; ++i)
        for (int j = 0; j < fanout; ++j)
            folder.makeFolder(QStringLiteral("tree/%1/%2").arg(i).arg(j));
    // In the order the folders list them, which a walk that takes the last listed
    // first reaches last, so that the writing and the walk cross.
    const auto listed = [](const QString &path) {
        return QDir(path).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    };
    QStringList leaves;
    for (const QString &middle : listed(folder.filePath("tree")))
        for (const QString &leaf : listed(folder.filePath("tree/" + middle)))
            leaves.append("tree/" + middle + '/' + leaf);
    QStringList older;
    for (qsizetype at = 0; at < leaves.size(); at += 50)
        older.append(folder.writeFile(leaves.at(at) + "/older.txt"));
    // Made long before the start and only moved in after it, so what they hold has old times.
    for (qsizetype at = 0; at < leaves.size(); at += 10)
        outside.writeFile(QStringLiteral("file-%1").arg(at));
    for (qsizetype at = 5; at < leaves.size(); at += 100)
        outside.writeFile(QStringLiteral("folder-%1/sub/deep.txt").arg(at));
    // File systems that keep times to the second or two must not make these look new.
    QThread::msleep(2500);

    ASSERT_TRUE(events.startWatchingPaths({folder.path()}));
    QStringList expected;
    for (qsizetype at = 0; at < leaves.size(); ++at) {
        const QString leaf = folder.filePath(leaves.at(at));
        if (at % 10 == 0) {
            ASSERT_TRUE(QFile::rename(outside.filePath(QStringLiteral("file-%1").arg(at)), leaf + "/moved.txt"));
            expected.append(leaf + "/moved.txt");
        } else if (at % 100 == 5) {
            ASSERT_TRUE(QDir().rename(outside.filePath(QStringLiteral("folder-%1").arg(at)), leaf + "/folder"));
            expected.append(leaf + "/folder/sub/deep.txt");
        } else {
            QFile file(leaf + "/new.txt");
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write("new\n");
            expected.append(file.fileName());
        }
    }
    ASSERT_TRUE(events.flushEventStreamSync());

    QSet<QString> reported;
    for (const SCEvent &event : listener.events)
        reported.insert(event.eventPath());
    QStringList missed;
    std::copy_if(expected.begin(), expected.end(), std::back_inserter(missed),
                 [&](const QString &path) { return !reported.contains(path); });
    EXPECT_EQ(missed.size(), 0) << "of " << expected.size() << " written or moved in after the start, e.g. "
                                << missed.mid(0, 5).join(' ').toStdString();
    const auto olderReported =
        std::count_if(older.begin(), older.end(), [&](const QString &path) { return reported.contains(path); });
    EXPECT_EQ(olderReported, 0) << "of " << older.size() << " files written before the start";
}
