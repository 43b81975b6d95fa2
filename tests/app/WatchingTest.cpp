#include "AgentFixture.h"

#include "app/Dispatcher.h"
#include "events/SCEvent.h"
#include "events/SCEvents.h"
#include "platform/Localization.h"
#include "Tarnlib/Tarnlib/QXUpdater.h"

#include <QAction>
#include <QMenu>
#include <QTest>

#include <atomic>
#include <memory>

namespace {

class WatchingTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        agent->dispatcher()->dispatchTimer()->stop();
    }

    QStringList submenuTitles() const
    {
        QStringList titles;
        for (QAction *action : agent->foldersBeingWatchedSubmenu()->actions())
            titles << action->text();
        return titles;
    }

    QStringList waiting() const
    {
        QStringList paths = agent->dispatcher()->waitingList().keys();
        paths.sort();
        return paths;
    }

    void deliver(qint32 flags, const QString &path, quint64 id)
    {
        SCEvent event(id, QDateTime::currentDateTime(), path, flags);
        agent->pathWatcherEventOccurred(agent->events(), &event);
    }
};

TEST_F(WatchingTest, NothingToWatchExplainsAndQuittingThereEndsTheStartup)
{
    for (const bool updateOnLaunch : {false, true}) {
        SCOPED_TRACE(updateOnLaunch);
        TearDown();
        home.writeDomain(companionDomain, {{QStringLiteral("UpdateDefsOnLaunch"), updateOnLaunch}});
        engine.writeScript("bin/RunFreshclam", "touch '" + engine.filePath("updated").toUtf8() + "'\n");
        SetUp();
        terminations = 0;
        alerts.alerts.clear();
        alerts.answers = {AlertPresenter::AlternateReturn};
        agent->applicationDidFinishLaunching();
        agent->continueStartup();
        EXPECT_EQ(terminations, 1);
        EXPECT_FALSE(agent->watching());
        ASSERT_EQ(alerts.alerts.size(), 1);
        EXPECT_EQ(alerts.alerts.first().informativeText, Localization::text("NOTHING_TO_WATCH_MESSAGE."));
        EXPECT_EQ(shownImage(), agent->throbberDefaultImage().cacheKey());

        // Neither an update nor a scan may follow.
        const QString path = home.writeFile("late.com", "x");
        agent->addToWaitingList(path);
        agent->dispatcher()->updateSizesInWaitingList();
        EXPECT_FALSE(agent->readyToScan());
        EXPECT_EQ(agent->dispatcher()->readyList(), QStringList{path});
        agent->scanFinishedWithStatus(0);
        EXPECT_FALSE(agent->readyToScan());
        // Requests run in order: once this one has, an update asked for before it has ended.
        auto reached = std::make_shared<std::atomic<bool>>(false);
        agent->utils()->theUpdater()->perform([reached] { *reached = true; });
        ASSERT_TRUE(QTest::qWaitFor([&] { return reached->load(); }, 20000));
        EXPECT_FALSE(QFile::exists(engine.filePath("updated")));
    }
}

// A removal or a metadata change queued a scan; a rename lost its old name; a folder to rescan was dropped.
TEST_F(WatchingTest, EventFlagsDecideWhetherThePathWaitsForAScan)
{
    const QString file = home.writeFile("w/file", "12345");
    const QString dir = home.filePath("w"), oldName = home.filePath("w/old-name");
    watch({folder(dir)});
    agent->startWatching(nullptr);

    deliver(0x100, file, 11); // created
    EXPECT_EQ(waiting(), QStringList{file});
    deliver(0x100 | 0x200, file, 12); // created and removed: a removal
    EXPECT_TRUE(waiting().isEmpty());
    deliver(0x800, oldName, 13); // both names of a rename wait
    deliver(0x800, file, 14);
    EXPECT_EQ(waiting(), (QStringList{file, oldName}));

    agent->dispatcher()->removeAllItems();
    deliver(0x400, file, 15); // metadata only
    deliver(0x1000 | 0x20000, dir, 16);
    EXPECT_TRUE(waiting().isEmpty());
    EXPECT_EQ(agent->theLastEventSeen(), 16u);

    deliver(0x1000 | 0x20000 | 0x1, dir, 17);
    deliver(0x1000, file, 18);
    EXPECT_EQ(waiting(), (QStringList{dir, file}));
}

// A folder written with ~ or a record without a path broke the watch; a restart lost waiting files.
TEST_F(WatchingTest, FoldersAreWatchedUnderTheirExpandedPathsAndRestartKeepsWaitingPathsAndStopRecordsTheLastEvent)
{
    home.writeFile("Shared/.keep", "");
    const QString pending = home.writeFile("w/pending", "x");
    watch({folder("~/w"), QVariantMap{{QStringLiteral("WatchSubdirs"), true}}, folder(home.filePath("Shared"))});
    const QStringList expanded{home.filePath("w"), home.filePath("Shared")};
    agent->startWatching(nullptr);
    EXPECT_EQ(submenuTitles(), expanded);
    EXPECT_EQ(agent->events()->watchedPaths(), expanded);
    EXPECT_EQ(agent->theLastEventSeen(), SCEvents::sinceNow);
    EXPECT_EQ(shownImage(), agent->throbberWatchingImage().cacheKey());
    SCEvents *first = agent->events();
    agent->addToWaitingList(pending);

    agent->restartWatching(nullptr);
    EXPECT_NE(agent->events(), first);
    EXPECT_TRUE(agent->events()->isWatchingPaths());
    EXPECT_EQ(submenuTitles(), expanded);
    EXPECT_EQ(waiting(), QStringList{pending});

    deliver(0x400, home.filePath("w/a"), 4242);
    agent->stopWatching(nullptr);
    EXPECT_FALSE(agent->watching());
    EXPECT_FALSE(agent->events()->isWatchingPaths());
    EXPECT_TRUE(submenuTitles().isEmpty());
    EXPECT_EQ(home.readDomain(agentDomain).value(QStringLiteral("lastEvent")).toULongLong(), 4242u);
    EXPECT_EQ(shownImage(), agent->throbberDefaultImage().cacheKey());
}

} // namespace
