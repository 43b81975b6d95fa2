#include "events/SCEvent.h"
#include "events/SCEvents.h"
#include "tests/support/QtPrinters.h"

#include <gtest/gtest.h>

namespace {

const QString previews = QStringLiteral("/home/u/Library/Caches/com.apple.Safari/Webpage Previews");

} // namespace

TEST(SCEventTest, DescribesItselfWithIdentifierPathAndFlags)
{
    const SCEvent event = SCEvent::eventWithEventId(1234567890123ULL, QDateTime::currentDateTime(),
                                                    QStringLiteral("/tmp/a %1 b"), 0x11100);
    EXPECT_EQ(event.description(),
              QStringLiteral("<SCEvent { eventId = 1234567890123, eventPath = /tmp/a %1 b, eventFlags = 69888 } >"));
}

TEST(SCEventsTest, WithNothingToWatchItRefusesToStartAndDescribesOnlyItsPaths)
{
    SCEvents events;
    EXPECT_FALSE(events.startWatchingPaths({}));
    EXPECT_FALSE(events.isWatchingPaths());
    EXPECT_FALSE(events.stopWatchingPaths());
    EXPECT_FALSE(events.flushEventStreamSync());
    EXPECT_FALSE(events.flushEventStreamAsync());
    EXPECT_TRUE(events.streamDescription().isNull());
    EXPECT_FALSE(events.lastEvent().has_value());
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
    const std::pair<const char *, const char *> cases[] = {
        {"/home/u/", "/home/u"}, {"/home/u//", "/home/u/"}, {"/home/u", "/home/u"}, {"/", "/"}, {"a/", "a"}, {"", ""}};
    for (const auto &[path, stripped] : cases)
        EXPECT_EQ(SCEvents::pathWithoutTrailingSlash(QString::fromLatin1(path)), QString::fromLatin1(stripped)) << path;
}
