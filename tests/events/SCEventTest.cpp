#include "events/SCEvent.h"
#include "events/SCEvents.h"
#include "tests/support/QtPrinters.h"

#include <gtest/gtest.h>

namespace {

const QString previews = QStringLiteral("/home/u/Library/Caches/com.apple.Safari/Webpage Previews");

} // namespace

TEST(SCEventTest, DescribesItselfWithIdentifierPathAndFlags)
{
    const QDateTime when = QDateTime::currentDateTime();
    const SCEvent event = SCEvent::eventWithEventId(1234567890123ULL, when, QStringLiteral("/tmp/a %1 b"), 0x11100);

    EXPECT_EQ(event.eventId(), 1234567890123ULL);
    EXPECT_EQ(event.eventDate(), when);
    EXPECT_EQ(event.eventPath(), QStringLiteral("/tmp/a %1 b"));
    EXPECT_EQ(event.eventFlags(), 0x11100);
    EXPECT_EQ(event.description(),
              QStringLiteral("<SCEvent { eventId = 1234567890123, eventPath = /tmp/a %1 b, eventFlags = 69888 } >"));
}

TEST(SCEventsTest, StartsWithTheDefaultsAndDescribesItsPaths)
{
    SCEvents events;
    EXPECT_FALSE(events.isWatchingPaths());
    EXPECT_EQ(events.notificationLatency(), 3.0);
    EXPECT_EQ(events.resumeFromEventId(), 0xFFFFFFFFFFFFFFFFULL);
    EXPECT_TRUE(events.ignoreEventsFromSubDirs());
    EXPECT_EQ(events.delegate(), nullptr);
    EXPECT_FALSE(events.lastEvent().has_value());
    EXPECT_TRUE(events.watchedPaths().isEmpty());
    EXPECT_TRUE(events.excludedPaths().isEmpty());
    EXPECT_EQ(events.description(), QStringLiteral("<SCEvents { watchedPaths = (), excludedPaths = () } >"));

    events.setWatchedPaths({QStringLiteral("/home/u"), QStringLiteral("/srv/drop")});
    events.setExcludedPaths({previews});
    EXPECT_EQ(events.description(),
              QStringLiteral("<SCEvents { watchedPaths = (\"/home/u\", \"/srv/drop\"), excludedPaths = "
                             "(\"/home/u/Library/Caches/com.apple.Safari/Webpage Previews\") } >"));
}

TEST(SCEventsTest, ExcludesEqualPathsAndTextPrefixesOnlyWhenIgnoringSubfolders)
{
    const QStringList excluded{previews};
    EXPECT_TRUE(SCEvents::isExcludedPath(previews, excluded, true));
    EXPECT_TRUE(SCEvents::isExcludedPath(previews + QStringLiteral("/a/b.png"), excluded, true));
    // Text, not path components: the sibling whose name only begins alike goes too.
    EXPECT_TRUE(SCEvents::isExcludedPath(previews + QStringLiteral("2"), excluded, true));
    EXPECT_FALSE(SCEvents::isExcludedPath(QStringLiteral("/home/u/Library/Caches"), excluded, true));

    EXPECT_TRUE(SCEvents::isExcludedPath(previews, excluded, false));
    EXPECT_FALSE(SCEvents::isExcludedPath(previews + QStringLiteral("/a/b.png"), excluded, false));
    EXPECT_FALSE(SCEvents::isExcludedPath(previews + QStringLiteral("2"), excluded, false));

    EXPECT_FALSE(SCEvents::isExcludedPath(previews, {}, true));
}

TEST(SCEventsTest, StripsOneTrailingSlashButLeavesTheRootAlone)
{
    EXPECT_EQ(SCEvents::pathWithoutTrailingSlash(QStringLiteral("/home/u/")), QStringLiteral("/home/u"));
    EXPECT_EQ(SCEvents::pathWithoutTrailingSlash(QStringLiteral("/home/u//")), QStringLiteral("/home/u/"));
    EXPECT_EQ(SCEvents::pathWithoutTrailingSlash(QStringLiteral("/home/u")), QStringLiteral("/home/u"));
    EXPECT_EQ(SCEvents::pathWithoutTrailingSlash(QStringLiteral("/")), QStringLiteral("/"));
    EXPECT_EQ(SCEvents::pathWithoutTrailingSlash(QStringLiteral("a/")), QStringLiteral("a"));
    EXPECT_EQ(SCEvents::pathWithoutTrailingSlash(QString()), QString());
}

TEST(SCEventsTest, AnswersFalseWhenThereIsNothingToWatchOrItIsNotWatching)
{
    SCEvents events;
    EXPECT_FALSE(events.startWatchingPaths({}));
    EXPECT_FALSE(events.isWatchingPaths());
    EXPECT_FALSE(events.stopWatchingPaths());
    EXPECT_FALSE(events.flushEventStreamSync());
    EXPECT_FALSE(events.flushEventStreamAsync());
    EXPECT_TRUE(events.streamDescription().isNull());
}
