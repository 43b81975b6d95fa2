#include "AgentFixture.h"

#include "app/Dispatcher.h"
#include "events/SCEvent.h"
#include "events/SCEvents.h"
#include "platform/Localization.h"
#include "platform/StatusItem.h"

#include <QAction>
#include <QMenu>
#include <QTest>

namespace {

const QString companionDomain = QStringLiteral("org.korvane.Korvane");
const QString agentDomain = QStringLiteral("org.korvane.KorvaneVarden");

QVariantMap folder(const QString &path)
{
    return {{QStringLiteral("pathName"), path}, {QStringLiteral("WatchSubdirs"), true}};
}

class WatchingTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        agent->dispatcher()->dispatchTimer()->stop();
    }

    void watch(const QVariantList &folders)
    {
        home.writeDomain(companionDomain, {{QStringLiteral("VardenFolderArray"), folders}});
    }

    QStringList submenuTitles() const
    {
        QStringList titles;
        for (QAction *action : agent->foldersBeingWatchedSubmenu()->actions())
            titles << action->text();
        return titles;
    }

    void deliver(qint32 flags, const QString &path, quint64 id = 7)
    {
        SCEvent event(id, QDateTime::currentDateTime(), path, flags);
        agent->pathWatcherEventOccurred(agent->events(), &event);
    }
};

TEST_F(WatchingTest, FoldersAreWatchedUnderTheirExpandedPathsAndListedInOrder)
{
    home.writeFile("Downloads/.keep", "");
    home.writeFile("Shared/.keep", "");
    watch({folder("~/Downloads"), QVariantMap{{QStringLiteral("WatchSubdirs"), true}}, folder(home.filePath("Shared"))});

    agent->startWatching(nullptr);

    EXPECT_TRUE(agent->watching());
    EXPECT_EQ(submenuTitles(), (QStringList{home.filePath("Downloads"), home.filePath("Shared")}));
    ASSERT_NE(agent->events(), nullptr);
    EXPECT_TRUE(agent->events()->isWatchingPaths());
    EXPECT_EQ(agent->events()->watchedPaths(), submenuTitles());
    EXPECT_EQ(agent->events()->excludedPaths(),
              QStringList{home.path() + QStringLiteral("/Library/Caches/com.apple.Safari/Webpage Previews")});
    EXPECT_EQ(agent->theLastEventSeen(), SCEvents::sinceNow);
    EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberWatchingImage().cacheKey());
}

TEST_F(WatchingTest, NothingToWatchExplainsAndQuits)
{
    alerts.answers = {AlertPresenter::AlternateReturn};
    agent->startWatching(nullptr);
    EXPECT_FALSE(agent->watching());
    ASSERT_EQ(alerts.alerts.size(), 1);
    EXPECT_EQ(alerts.alerts.first().informativeText, Localization::text("NOTHING_TO_WATCH_MESSAGE."));
    EXPECT_EQ(alerts.alerts.first().defaultButton, Localization::text("OPEN_PREFS"));
    EXPECT_EQ(terminations, 1);
    EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberDefaultImage().cacheKey());
}

TEST_F(WatchingTest, EventFlagsDecideWhatHappensToThePath)
{
    const QString file = home.writeFile("w/file", "12345");
    const QString dir = home.filePath("w");
    watch({folder(dir)});
    agent->startWatching(nullptr);

    deliver(0x100 | 0x200, file, 10); // created and removed: a removal
    EXPECT_TRUE(agent->dispatcher()->waitingList().isEmpty());

    deliver(0x800, home.filePath("w/old-name"), 11); // both names of a rename wait
    deliver(0x800, file, 12);
    EXPECT_EQ(agent->dispatcher()->waitingList().value(home.filePath("w/old-name"), 99), 0u);
    EXPECT_EQ(agent->dispatcher()->waitingList().value(file), 5u);

    agent->dispatcher()->removeAllItems();
    deliver(0x400, file, 13); // metadata only
    EXPECT_TRUE(agent->dispatcher()->waitingList().isEmpty());
    EXPECT_EQ(agent->theLastEventSeen(), 13u);

    deliver(0x1000 | 0x20000, dir, 14);
    EXPECT_TRUE(agent->dispatcher()->waitingList().isEmpty());
    EXPECT_TRUE(log.contains("modified dir ignore " + dir));

    deliver(0x1000 | 0x20000 | 0x1, dir, 15);
    EXPECT_TRUE(agent->dispatcher()->waitingList().contains(dir));
    EXPECT_TRUE(log.contains("modified dir with kFSEventStreamEventFlagMustScanSubDirs " + dir));

    deliver(0x1000, file, 16);
    EXPECT_TRUE(agent->dispatcher()->waitingList().contains(file));
}

TEST_F(WatchingTest, StopRecordsTheLastEventAndEmptiesTheMenu)
{
    watch({folder(home.filePath("w"))});
    home.writeFile("w/.keep", "");
    agent->startWatching(nullptr);
    deliver(0x400, home.filePath("w/a"), 4242);

    agent->stopWatching(nullptr);

    EXPECT_FALSE(agent->watching());
    EXPECT_FALSE(agent->events()->isWatchingPaths());
    EXPECT_TRUE(submenuTitles().isEmpty());
    EXPECT_EQ(home.readDomain(agentDomain).value(QStringLiteral("lastEvent")).toULongLong(), 4242u);
    EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberDefaultImage().cacheKey());
}

TEST_F(WatchingTest, RestartRefillsTheMenuWithAFreshStreamAndKeepsWaitingPaths)
{
    watch({folder(home.filePath("w"))});
    const QString waiting = home.writeFile("w/waiting", "x");
    agent->startWatching(nullptr);
    SCEvents *first = agent->events();
    agent->addToWaitingList(waiting);

    agent->restartWatching(nullptr);

    EXPECT_NE(agent->events(), first);
    EXPECT_TRUE(agent->events()->isWatchingPaths());
    EXPECT_EQ(submenuTitles(), QStringList{home.filePath("w")});
    EXPECT_TRUE(agent->dispatcher()->waitingList().contains(waiting));
}

TEST_F(WatchingTest, AFileWrittenIntoAWatchedFolderReachesTheDispatcher)
{
    watch({folder(home.filePath("w"))});
    home.writeFile("w/.keep", "");
    agent->startWatching(nullptr);
    agent->events()->flushEventStreamSync(); // returns once the folder is watched

    const QString created = home.writeFile("w/new.txt", "hello");

    EXPECT_TRUE(QTest::qWaitFor([&] { return agent->dispatcher()->waitingList().contains(created); }, 10000));
    EXPECT_NE(agent->theLastEventSeen(), SCEvents::sinceNow);
}

} // namespace
