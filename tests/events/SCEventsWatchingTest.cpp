#include "RecordingListener.h"
#include "WatchedFolder.h"

#include "tests/support/LogCapture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <gtest/gtest.h>

#include <cstdio>

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

    bool saw(const QString &path, qint32 flags = 0)
    {
        return eventually([&] { return listener.saw(path, flags); });
    }

    WatchedFolder folder;
    RecordingListener listener;
    SCEvents events;
};

TEST_F(SCEventsWatchingTest, CreatedFileArrivesAsOneEventWithAllItsChanges)
{
    watch({folder.path()});
    const QString file = folder.writeFile(QStringLiteral("report.pdf"));

    EXPECT_TRUE(saw(file, Flag::created | Flag::modified | Flag::isFile)) << listener.dump().toStdString();
    ASSERT_TRUE(events.flushEventStreamSync());
    ASSERT_EQ(listener.eventsFor(file).size(), 1) << listener.dump().toStdString();
    EXPECT_EQ(listener.eventsFor(file).first().eventFlags() & Flag::isDir, 0);
    EXPECT_EQ(listener.senders.first(), &events);
    EXPECT_FALSE(listener.calledOffMainThread);
}

TEST_F(SCEventsWatchingTest, FilesInFoldersMadeAfterTheStartAreReported)
{
    watch({folder.path()});
    const QString made = folder.makeFolder(QStringLiteral("later/inner"));
    ASSERT_TRUE(saw(made, Flag::created | Flag::isDir)) << listener.dump().toStdString();
    EXPECT_TRUE(listener.saw(folder.filePath(QStringLiteral("later")), Flag::created | Flag::isDir));

    const QString file = folder.writeFile(QStringLiteral("later/inner/payload.exe"));
    EXPECT_TRUE(saw(file, Flag::created | Flag::modified | Flag::isFile)) << listener.dump().toStdString();
}

TEST_F(SCEventsWatchingTest, FileMadeInANewFolderBeforeItsWatchExistedIsStillReported)
{
    watch({folder.path()});
    QProcess shell;
    shell.setWorkingDirectory(folder.path());
    shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QStringLiteral("mkdir -p a/b/c && echo x > a/b/c/f")});
    ASSERT_TRUE(shell.waitForFinished(10000));
    ASSERT_EQ(shell.exitCode(), 0);

    EXPECT_TRUE(saw(folder.filePath(QStringLiteral("a/b/c/f")), Flag::created | Flag::isFile))
        << listener.dump().toStdString();
    EXPECT_TRUE(listener.saw(folder.filePath(QStringLiteral("a")), Flag::created | Flag::isDir));
    EXPECT_TRUE(listener.saw(folder.filePath(QStringLiteral("a/b/c")), Flag::created | Flag::isDir));
}

TEST_F(SCEventsWatchingTest, TreeMovedInFromOutsideIsListedAndWatched)
{
    WatchedFolder outside;
    outside.writeFile(QStringLiteral("tree/top.txt"));
    outside.writeFile(QStringLiteral("tree/sub/deep.txt"));
    watch({folder.path()});

    const QString tree = folder.filePath(QStringLiteral("tree"));
    ASSERT_TRUE(QDir().rename(outside.filePath(QStringLiteral("tree")), tree));

    EXPECT_TRUE(saw(folder.filePath(QStringLiteral("tree/sub/deep.txt")), Flag::created | Flag::isFile))
        << listener.dump().toStdString();
    EXPECT_TRUE(listener.saw(tree, Flag::renamed | Flag::isDir));
    EXPECT_TRUE(listener.saw(folder.filePath(QStringLiteral("tree/top.txt")), Flag::created | Flag::isFile));
    EXPECT_TRUE(listener.saw(folder.filePath(QStringLiteral("tree/sub")), Flag::created | Flag::isDir));

    const QString later = folder.writeFile(QStringLiteral("tree/sub/later.txt"));
    EXPECT_TRUE(saw(later, Flag::created | Flag::modified)) << listener.dump().toStdString();
}

TEST_F(SCEventsWatchingTest, RenameReportsTheOldAndTheNewPath)
{
    const QString before = folder.writeFile(QStringLiteral("before.txt"));
    const QString after = folder.filePath(QStringLiteral("after.txt"));
    watch({folder.path()});

    ASSERT_TRUE(QFile::rename(before, after));
    EXPECT_TRUE(saw(after, Flag::renamed | Flag::isFile)) << listener.dump().toStdString();
    EXPECT_TRUE(listener.saw(before, Flag::renamed | Flag::isFile)) << listener.dump().toStdString();
}

TEST_F(SCEventsWatchingTest, FolderRenamedInsideTheTreeReportsUnderItsNewName)
{
    folder.makeFolder(QStringLiteral("before/sub"));
    watch({folder.path()});

    ASSERT_TRUE(QDir().rename(folder.filePath(QStringLiteral("before")), folder.filePath(QStringLiteral("after"))));
    ASSERT_TRUE(saw(folder.filePath(QStringLiteral("after")), Flag::renamed | Flag::isDir));
    EXPECT_TRUE(listener.saw(folder.filePath(QStringLiteral("before")), Flag::renamed | Flag::isDir));
    const QString file = folder.writeFile(QStringLiteral("after/sub/f.txt"));

    EXPECT_TRUE(saw(file, Flag::created | Flag::modified)) << listener.dump().toStdString();
    EXPECT_FALSE(listener.saw(folder.filePath(QStringLiteral("before/sub/f.txt"))));
}

TEST_F(SCEventsWatchingTest, FolderMovedOutOfTheTreeIsNoLongerReported)
{
    WatchedFolder outside;
    folder.makeFolder(QStringLiteral("leaving/sub"));
    watch({folder.path()});

    const QString gone = outside.filePath(QStringLiteral("leaving"));
    ASSERT_TRUE(QDir().rename(folder.filePath(QStringLiteral("leaving")), gone));
    ASSERT_TRUE(saw(folder.filePath(QStringLiteral("leaving")), Flag::renamed | Flag::isDir));
    outside.writeFile(QStringLiteral("leaving/sub/elsewhere.txt"));
    const QString sentinel = folder.writeFile(QStringLiteral("sentinel.txt"));
    ASSERT_TRUE(saw(sentinel));
    ASSERT_TRUE(events.flushEventStreamSync());

    for (const SCEvent &event : listener.events)
        EXPECT_FALSE(event.eventPath().endsWith(QStringLiteral("elsewhere.txt"))) << event.description().toStdString();
}

TEST_F(SCEventsWatchingTest, RemovalIsReported)
{
    const QString file = folder.writeFile(QStringLiteral("doomed.txt"));
    const QString emptied = folder.makeFolder(QStringLiteral("emptied"));
    watch({folder.path()});

    ASSERT_TRUE(QFile::remove(file));
    ASSERT_TRUE(QDir().rmdir(emptied));
    EXPECT_TRUE(saw(file, Flag::removed | Flag::isFile)) << listener.dump().toStdString();
    EXPECT_TRUE(saw(emptied, Flag::removed | Flag::isDir)) << listener.dump().toStdString();
}

TEST_F(SCEventsWatchingTest, AttributeChangeIsNotAModification)
{
    const QString file = folder.writeFile(QStringLiteral("script.sh"));
    watch({folder.path()});

    ASSERT_TRUE(QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    ASSERT_TRUE(saw(file, Flag::inodeMetaMod | Flag::isFile)) << listener.dump().toStdString();
    ASSERT_TRUE(events.flushEventStreamSync());
    for (const SCEvent &event : listener.eventsFor(file))
        EXPECT_EQ(event.eventFlags() & Flag::modified, 0) << event.description().toStdString();
}

TEST_F(SCEventsWatchingTest, ExcludedFolderDropsItsWholeSubtreeAndPrefixSiblings)
{
    const QString excluded = folder.makeFolder(QStringLiteral("Webpage Previews"));
    events.setExcludedPaths({excluded});
    watch({folder.path()});

    // The dropped changes come first in the batch; what follows them still arrives.
    folder.writeFile(QStringLiteral("Webpage Previews/a.png"));
    folder.writeFile(QStringLiteral("Webpage Previews/deep/b.png"));
    folder.writeFile(QStringLiteral("Webpage Previews2/c.png"));
    QFile::setPermissions(excluded, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString kept = folder.writeFile(QStringLiteral("kept.txt"));
    ASSERT_TRUE(saw(kept)) << listener.dump().toStdString();
    ASSERT_TRUE(events.flushEventStreamSync());

    EXPECT_FALSE(listener.sawAnythingUnder(excluded)) << listener.dump().toStdString();
    EXPECT_FALSE(listener.sawAnythingUnder(excluded + QStringLiteral("2"))) << listener.dump().toStdString();
}

TEST_F(SCEventsWatchingTest, WithoutIgnoringSubfoldersOnlyTheExactPathIsDropped)
{
    const QString excluded = folder.makeFolder(QStringLiteral("Webpage Previews"));
    events.setExcludedPaths({excluded});
    events.setIgnoreEventsFromSubDirs(false);
    watch({folder.path()});

    QFile::setPermissions(excluded, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString inside = folder.writeFile(QStringLiteral("Webpage Previews/a.png"));
    const QString sibling = folder.writeFile(QStringLiteral("Webpage Previews2/c.png"));

    EXPECT_TRUE(saw(inside, Flag::created)) << listener.dump().toStdString();
    EXPECT_TRUE(saw(sibling, Flag::created)) << listener.dump().toStdString();
    ASSERT_TRUE(events.flushEventStreamSync());
    EXPECT_TRUE(listener.eventsFor(excluded).isEmpty()) << listener.dump().toStdString();
}

TEST_F(SCEventsWatchingTest, WatchedPathWithATrailingSlashReportsPathsWithoutDoubleSlashes)
{
    watch({folder.path() + QStringLiteral("/")});
    const QString file = folder.writeFile(QStringLiteral("f.txt"));

    EXPECT_TRUE(saw(file, Flag::created)) << listener.dump().toStdString();
    for (const SCEvent &event : listener.events)
        EXPECT_FALSE(event.eventPath().contains(QStringLiteral("//"))) << event.description().toStdString();
}

TEST_F(SCEventsWatchingTest, StartingTwiceAnswersFalseAndTheFirstStreamKeepsRunning)
{
    WatchedFolder other;
    watch({folder.path()});

    EXPECT_FALSE(events.startWatchingPaths({other.path()}));
    EXPECT_TRUE(events.isWatchingPaths());
    EXPECT_EQ(events.watchedPaths(), QStringList{folder.path()});
    EXPECT_TRUE(events.streamDescription().contains(folder.path())) << events.streamDescription().toStdString();

    const QString file = folder.writeFile(QStringLiteral("still.txt"));
    EXPECT_TRUE(saw(file, Flag::created));

    ASSERT_TRUE(events.stopWatchingPaths());
    watch({other.path()});
    const QString again = other.writeFile(QStringLiteral("again.txt"));
    EXPECT_TRUE(saw(again, Flag::created));
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

    folder.writeFile(QStringLiteral("pending.txt"));
    EXPECT_TRUE(events.stopWatchingPaths());
    EXPECT_FALSE(events.isWatchingPaths());
    EXPECT_FALSE(events.stopWatchingPaths());
    EXPECT_TRUE(events.streamDescription().isNull());
    const QString after = folder.writeFile(QStringLiteral("after.txt"));

    ASSERT_TRUE(eventually([&] { return witness.saw(after); }));
    EXPECT_TRUE(listener.events.isEmpty()) << listener.dump().toStdString();
}

TEST_F(SCEventsWatchingTest, MissingFolderIsLoggedAndTheOthersAreWatched)
{
    LogCapture log;
    const QString missing = folder.filePath(QStringLiteral("not-there"));
    const QString present = folder.makeFolder(QStringLiteral("present"));
    watch({missing, present});

    EXPECT_EQ(log.count(QStringLiteral("cannot watch %1: No such file or directory").arg(missing)), 1)
        << log.lines().join('\n').toStdString();
    const QString file = folder.writeFile(QStringLiteral("present/f.txt"));
    EXPECT_TRUE(saw(file, Flag::created));

    // Nothing but missing folders still makes a running stream.
    SCEvents lonely;
    EXPECT_TRUE(lonely.startWatchingPaths({missing}));
    EXPECT_TRUE(lonely.isWatchingPaths());
}

TEST_F(SCEventsWatchingTest, RemovedRootIsReportedAndLoggedWhileTheOtherRootsGoOn)
{
    LogCapture log;
    const QString doomed = folder.makeFolder(QStringLiteral("doomed"));
    const QString staying = folder.makeFolder(QStringLiteral("staying"));
    watch({doomed, staying});

    ASSERT_TRUE(QDir().rmdir(doomed));
    EXPECT_TRUE(saw(doomed, Flag::rootChanged)) << listener.dump().toStdString();
    EXPECT_TRUE(log.contains(QStringLiteral("cannot watch %1: it was removed").arg(doomed)))
        << log.lines().join('\n').toStdString();
    const QString file = folder.writeFile(QStringLiteral("staying/f.txt"));
    EXPECT_TRUE(saw(file, Flag::created));
}

TEST_F(SCEventsWatchingTest, IdentifiersGrowAcrossBatchesAndStreams)
{
    watch({folder.path()});
    folder.writeFile(QStringLiteral("one.txt"));
    folder.writeFile(QStringLiteral("two.txt"));
    ASSERT_TRUE(events.flushEventStreamSync());
    folder.writeFile(QStringLiteral("three.txt"));
    ASSERT_TRUE(events.flushEventStreamSync());
    ASSERT_TRUE(events.stopWatchingPaths());

    SCEvents next;
    next.setDelegate(&listener);
    ASSERT_TRUE(next.startWatchingPaths({folder.path()}));
    ASSERT_TRUE(next.flushEventStreamSync());
    folder.writeFile(QStringLiteral("four.txt"));
    ASSERT_TRUE(next.flushEventStreamSync());

    ASSERT_GE(listener.events.size(), 4) << listener.dump().toStdString();
    for (qsizetype i = 1; i < listener.events.size(); ++i)
        EXPECT_GT(listener.events.at(i).eventId(), listener.events.at(i - 1).eventId()) << listener.dump().toStdString();
    EXPECT_EQ(listener.senders.last(), &next);
}

TEST_F(SCEventsWatchingTest, LastEventIsTheLastRecordOfTheLatestBatchUnlessThatWasDropped)
{
    const QString excluded = folder.filePath(QStringLiteral("skipped"));
    events.setExcludedPaths({excluded});
    // Batches end only at the flushes below.
    events.setNotificationLatency(60);
    watch({folder.path()});
    EXPECT_FALSE(events.lastEvent().has_value());

    folder.writeFile(QStringLiteral("a.txt"));
    const QString b = folder.writeFile(QStringLiteral("b.txt"));
    ASSERT_TRUE(events.flushEventStreamSync());
    ASSERT_TRUE(events.lastEvent().has_value());
    EXPECT_EQ(events.lastEvent()->eventPath(), b);
    EXPECT_EQ(events.lastEvent()->eventId(), listener.events.last().eventId());

    const QString c = folder.writeFile(QStringLiteral("c.txt"));
    folder.makeFolder(QStringLiteral("skipped"));
    ASSERT_TRUE(events.flushEventStreamSync());
    EXPECT_TRUE(listener.saw(c)) << listener.dump().toStdString();
    ASSERT_TRUE(events.lastEvent().has_value());
    EXPECT_EQ(events.lastEvent()->eventPath(), b);

    // Without a delegate nobody hears of the batch, yet its last event is kept.
    events.setDelegate(nullptr);
    const QString d = folder.writeFile(QStringLiteral("d.txt"));
    ASSERT_TRUE(events.flushEventStreamSync());
    EXPECT_EQ(events.lastEvent().value_or(SCEvent()).eventPath(), d);
    EXPECT_FALSE(listener.saw(d));
}

TEST_F(SCEventsWatchingTest, SymbolicLinksToFoldersAreNotFollowed)
{
    WatchedFolder outside;
    outside.makeFolder(QStringLiteral("target"));
    ASSERT_TRUE(QFile::link(outside.filePath(QStringLiteral("target")), folder.filePath(QStringLiteral("early"))));
    watch({folder.path()});
    const QString late = folder.filePath(QStringLiteral("late"));
    ASSERT_TRUE(QFile::link(outside.filePath(QStringLiteral("target")), late));
    ASSERT_TRUE(saw(late, Flag::created)) << listener.dump().toStdString();

    outside.writeFile(QStringLiteral("target/through-link.txt"));
    const QString sentinel = folder.writeFile(QStringLiteral("sentinel.txt"));
    ASSERT_TRUE(saw(sentinel));
    ASSERT_TRUE(events.flushEventStreamSync());
    for (const SCEvent &event : listener.events)
        EXPECT_FALSE(event.eventPath().endsWith(QStringLiteral("through-link.txt"))) << listener.dump().toStdString();
}

namespace {

class StoppingListener : public RecordingListener
{
public:
    void pathWatcherEventOccurred(SCEvents *pathWatcher, SCEvent *eventOccurred) override
    {
        RecordingListener::pathWatcherEventOccurred(pathWatcher, eventOccurred);
        pathWatcher->stopWatchingPaths();
    }
};

} // namespace

TEST_F(SCEventsWatchingTest, DelegateMayStopTheStreamWhileBeingCalled)
{
    StoppingListener stopper;
    events.setDelegate(&stopper);
    watch({folder.path()});
    folder.writeFile(QStringLiteral("one.txt"));
    folder.writeFile(QStringLiteral("two.txt"));

    ASSERT_TRUE(eventually([&] { return !events.isWatchingPaths(); }));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    // The batch in hand is finished, as the original stream does.
    EXPECT_GE(stopper.events.size(), 1);
    EXPECT_FALSE(events.flushEventStreamSync());
}
