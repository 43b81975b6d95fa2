#include "events/SCEvents.h"

#include <gtest/gtest.h>

TEST(SCEventsTest, WithNothingToWatchItRefusesToStartAndEveryStreamOperationAnswersNo)
{
    SCEvents events;
    EXPECT_FALSE(events.startWatchingPaths({}));
    EXPECT_FALSE(events.isWatchingPaths());
    EXPECT_FALSE(events.stopWatchingPaths());
    EXPECT_FALSE(events.flushEventStreamSync());
    EXPECT_FALSE(events.flushEventStreamAsync());
    EXPECT_TRUE(events.streamDescription().isNull());
    EXPECT_FALSE(events.lastEvent().has_value());
}

TEST(SCEventsTest, StripsOneTrailingSlashButLeavesTheRootAlone)
{
    const std::pair<const char *, const char *> cases[] = {
        {"/home/u/", "/home/u"}, {"/home/u", "/home/u"}, {"/", "/"}, {"", ""}};
    for (const auto &[path, stripped] : cases)
        EXPECT_EQ(SCEvents::pathWithoutTrailingSlash(QString::fromLatin1(path)), QString::fromLatin1(stripped)) << path;
}
