#include "AgentFixture.h"

#include "platform/Localization.h"
#include "tests/support/RecordingNotificationCenter.h"

#include <QFile>
#include <QTest>

#include <algorithm>

namespace {

const QString failedStart = QStringLiteral("-[KorvaneVarden_AppDelegate clamdFailedToStart]");

class EngineReactionsTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        const int failedStarts = log.count(failedStart);
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        // The launch check finds the scripted engine and fails to start a daemon.
        ASSERT_TRUE(QTest::qWaitFor([&] { return log.count(failedStart) == failedStarts + 1; }, 10000));
        alerts.alerts.clear();
    }

    // A quit agent starts nothing more, so a second answer goes to a fresh one.
    void launchAgain()
    {
        TearDown();
        SetUp();
        terminations = 0;
    }

    RecordingNotificationCenter notifications;
};

TEST_F(EngineReactionsTest, MissingEngineOffersTheCompanionAndQuitsEitherWay)
{
    // A desktop entry for the companion whose program leaves a mark.
    const QString mark = home.filePath("companion-started");
    const QString program = engine.writeScript("bin/korvane", "touch '" + mark.toUtf8() + "'\n");
    home.writeFile(".local/share/applications/org.korvane.Korvane.desktop",
                   "[Desktop Entry]\nType=Application\nName=Korvane\nExec=" + program.toUtf8() + " %U\n");

    alerts.answers = {AlertPresenter::AlternateReturn};
    agent->engineNotFound();
    ASSERT_EQ(alerts.alerts.size(), 1);
    EXPECT_EQ(alerts.alerts.first().informativeText, Localization::text("ENGINE_NOT_FOUND"));
    EXPECT_EQ(terminations, 1);
    QTest::qWait(300);
    EXPECT_FALSE(QFile::exists(mark));

    launchAgain();
    alerts.answers = {AlertPresenter::DefaultReturn};
    agent->engineNotFound();
    EXPECT_EQ(terminations, 1);
    EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(mark); }, 5000));
}

TEST_F(EngineReactionsTest, MissingDefinitionsRunTheUpdaterOrQuit)
{
    engine.writeScript("bin/RunFreshclam",
                       "echo \"$@\" > '" + engine.filePath("updater-arguments").toUtf8() + "'\nexit 1\n");

    alerts.answers = {AlertPresenter::AlternateReturn};
    agent->needToUpdateDB();
    EXPECT_EQ(terminations, 1);
    EXPECT_EQ(alerts.alerts.first().informativeText, Localization::text("MISSING_DEFS"));

    launchAgain();
    alerts.answers = {AlertPresenter::DefaultReturn};
    agent->needToUpdateDB();
    EXPECT_EQ(terminations, 0);
    // The guard's status may be told as well: the update's result is looked for among them.
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            return std::any_of(notifications.delivered.begin(), notifications.delivered.end(),
                               [](const auto &told) { return told.second == Localization::text("UPDATE_COMPLETE"); });
        },
        10000));
    EXPECT_EQ(engine.readFile("updater-arguments").trimmed(),
              "--stdout --log=" + engine.filePath("freshclam.log").toUtf8() + " --on-update-execute=EXIT_1");
}

// An update that failed or crashed left the animation turning and scanning off.
TEST_F(EngineReactionsTest, EveryUpdateEndStopsTheAnimationNotifiesByStatusAndChecksAgain)
{
    const struct
    {
        int status;
        const char *message;
    } cases[] = {
        {0, "UPDATE_ALREADY"}, {1, "UPDATE_COMPLETE"}, {9, nullptr}, {2, "UPDATE_CRASHED"}, {-1, "UPDATE_CRASHED"}};
    for (const auto &[status, message] : cases) {
        SCOPED_TRACE(status);
        notifications.delivered.clear();
        const int failedStarts = log.count(failedStart);
        agent->setReadyToScan(true);
        agent->utils()->updateStarted();
        EXPECT_FALSE(agent->readyToScan());
        EXPECT_TRUE(agent->throbberAnimationTimer()->isActive());

        agent->utils()->updateFinishedWithStatus(status);

        EXPECT_FALSE(agent->throbberAnimationTimer()->isActive());
        EXPECT_EQ(shownImage(), agent->throbberWatchingImage().cacheKey());
        EXPECT_FALSE(agent->utils()->updating());
        EXPECT_FALSE(agent->readyToScan()) << "scanning resumes only through the engine check";
        using Delivered = QList<QPair<QString, QString>>;
        EXPECT_EQ(notifications.delivered,
                  (message ? Delivered{{QString(), Localization::text(message)}} : Delivered()));
        // The check that follows finds the engine and tries its daemon again.
        EXPECT_TRUE(QTest::qWaitFor([&] { return log.count(failedStart) == failedStarts + 1; }, 10000));
    }
}

// A daemon found already running left the startup waiting for ever.
TEST_F(EngineReactionsTest, EachDaemonReportThatFindsItRunningContinuesTheStartup)
{
    watch({folder(home.path())});
    agent->clamdAlreadyRunning();
    EXPECT_FALSE(agent->startingUp());
    EXPECT_TRUE(agent->readyToScan());
    agent->setReadyToScan(false);
    agent->clamdStarted();
    EXPECT_TRUE(agent->readyToScan());
}

} // namespace
