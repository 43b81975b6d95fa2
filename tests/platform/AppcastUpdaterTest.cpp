#include "platform/AppcastUpdater.h"
#include "tests/support/FeedServer.h"
#include "tests/support/LogCapture.h"

#include <QTest>
#include <gtest/gtest.h>

namespace {

class RecordingUpdaterDelegate : public AppcastUpdaterDelegate
{
public:
    void updaterDidFindValidUpdate(AppcastUpdater *, const AppcastItem &update) override { found << update.version; }
    void updaterDidNotFindUpdate(AppcastUpdater *) override { ++notFound; }
    int answers() const { return int(found.size()) + notFound; }

    QStringList found;
    int notFound = 0;
};

// Runs one check to its end: an answer for the delegate or a failure.
void check(AppcastUpdater &updater)
{
    updater.checkForUpdateInformation();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !updater.isChecking(); }, 10000));
}

TEST(AppcastUpdaterTest, VersionsCompareByNumbersThenTextAsAppcastsDo)
{
    const QList<std::tuple<QString, QString, int>> cases{
        {"1.0", "1.0", 0},       {"1.10", "1.9", 1},
        {"2", "10", -1},         {"1.0.1", "1.0", 1},
        {"1.0", "1.0b", 1},      {"1.0b2", "1.0b10", -1},
        {"1.0a", "1.0b", -1},    {"1.0", "1.0.0", -1},
        {"007", "7", 0},         {"99999999999999999999", "99999999999999999998", 1},
        {"1.2 beta", "1.2", -1}, {"1.2 2", "1.2", 1},
        {"", "0", -1},
    };
    for (const auto &[a, b, order] : cases) {
        EXPECT_EQ(AppcastUpdater::compareVersions(a, b), order) << a.toStdString() << " vs " << b.toStdString();
        EXPECT_EQ(AppcastUpdater::compareVersions(b, a), -order) << b.toStdString() << " vs " << a.toStdString();
    }
}

TEST(AppcastUpdaterTest, NewestItemIsTheHighestVersionWhereverTheFeedPutsIt)
{
    const QByteArray elementForm = "<rss xmlns:sparkle=\"urn:x\"><channel><item><title>Six</title>"
                                   "<sparkle:version>6</sparkle:version>"
                                   "<sparkle:shortVersionString>0.6</sparkle:shortVersionString>"
                                   "<enclosure url=\"https://korvane.org/6\"/></item></channel></rss>";
    const QList<std::tuple<const char *, QByteArray, QString, bool>> cases{
        {"items in any order", FeedServer::appcast({"1.2", "1.10", "1.9b"}), "1.10", false},
        {"versions as elements", elementForm, "6", false},
        {"items without a version", "<rss><channel><item><title>x</title></item></channel></rss>", "", false},
        {"a web page", "<html><body>Moved</body></html>", "", true},
        {"cut short", FeedServer::appcast({"2.0"}).left(120), "", true},
    };
    for (const auto &[what, feed, newest, malformed] : cases) {
        SCOPED_TRACE(what);
        QString error;
        const std::optional<AppcastItem> item = AppcastUpdater::newestItem(feed, &error);
        EXPECT_EQ(item ? item->version : QString(), newest);
        EXPECT_EQ(!error.isEmpty(), malformed) << error.toStdString();
    }
}

TEST(AppcastUpdaterTest, DelegateHearsOfAnUpdateOnlyWhenTheFeedOffersAHigherVersion)
{
    FeedServer server;
    for (const auto &[offered, found] : {std::pair{"0.2.0", true}, {"0.1.0", false}, {"0.1.0b3", false}}) {
        SCOPED_TRACE(offered);
        server.body = FeedServer::appcast({"0.0.9", offered});
        RecordingUpdaterDelegate delegate;
        AppcastUpdater updater(server.url(), "0.1.0");
        updater.setDelegate(&delegate);
        check(updater);
        EXPECT_EQ(delegate.found, found ? QStringList{offered} : QStringList());
        EXPECT_EQ(delegate.notFound, found ? 0 : 1);
    }
}

TEST(AppcastUpdaterTest, FailedChecksAreLoggedOncePerRunOfFailuresAndToldToNoDelegate)
{
    LogCapture log;
    FeedServer server;
    server.body = FeedServer::appcast({"0.1.0"});
    RecordingUpdaterDelegate delegate;
    AppcastUpdater updater(server.url(), "0.1.0");
    updater.setDelegate(&delegate);
    updater.setTransferTimeout(300);

    const QList<std::pair<std::function<void()>, const char *>> failures{
        {[&] { server.status = 500; }, "HTTP status 500"},
        {[&] { server.silent = true; }, "no answer within 300 ms"},
        {[&] { server.body = "<html/>"; }, "not an RSS document"},
    };
    int expectedLines = 0;
    for (const auto &[fail, reason] : failures) {
        SCOPED_TRACE(reason);
        fail();
        for (int i = 0; i < 3; ++i)
            check(updater);
        ++expectedLines;
        ASSERT_EQ(log.lines().size(), expectedLines) << log.lines().join('\n').toStdString();
        EXPECT_TRUE(log.lines().last().contains(reason)) << log.lines().last().toStdString();
        EXPECT_EQ(delegate.answers(), expectedLines - 1);

        server.status = 200;
        server.silent = false;
        server.body = FeedServer::appcast({"0.1.0"});
        check(updater);
        EXPECT_EQ(delegate.answers(), expectedLines);
    }
}

TEST(AppcastUpdaterTest, WithoutAFeedAddressNothingIsFetchedAndThatIsLoggedOnce)
{
    LogCapture log;
    RecordingUpdaterDelegate delegate;
    AppcastUpdater updater(QUrl(), "0.1.0");
    updater.setDelegate(&delegate);
    updater.checkForUpdateInformation();
    updater.checkForUpdateInformation();
    EXPECT_FALSE(updater.isChecking());
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines().first().contains("no feed address"));
    EXPECT_EQ(delegate.answers(), 0);
}

} // namespace
