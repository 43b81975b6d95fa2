#include "AgentFixture.h"

#include "platform/Localization.h"
#include "platform/StatusItem.h"
#include "tests/support/RecordingNotificationCenter.h"

#include <QFile>
#include <QTest>

namespace {

class EngineReactionsTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        // The launch check finds the scripted engine and fails to start a
        // daemon; the tests start from there.
        ASSERT_TRUE(QTest::qWaitFor(
            [&] { return log.contains(QStringLiteral("-[KorvaneVarden_AppDelegate clamdFailedToStart]")); }, 10000));
        alerts.alerts.clear();
    }

    // A desktop entry for the companion whose program leaves a mark.
    QString installCompanion()
    {
        const QString mark = home.filePath("companion-started");
        const QString program = home.writeFile("bin/korvane", "#!/bin/sh\ntouch '" + mark.toUtf8() + "'\n");
        QFile::setPermissions(program, QFile::permissions(program) | QFile::ExeOwner);
        home.writeFile(".local/share/applications/org.korvane.Korvane.desktop",
                       "[Desktop Entry]\nType=Application\nName=Korvane\nExec=" + program.toUtf8() + " %U\n");
        return mark;
    }

    RecordingNotificationCenter notifications;
};

TEST_F(EngineReactionsTest, MissingEngineOffersTheCompanionAndQuitsEitherWay)
{
    const QString mark = installCompanion();
    alerts.answers = {AlertPresenter::AlternateReturn};
    agent->engineNotFound();
    ASSERT_EQ(alerts.alerts.size(), 1);
    EXPECT_EQ(alerts.alerts.first().informativeText, Localization::text("ENGINE_NOT_FOUND"));
    EXPECT_EQ(alerts.alerts.first().defaultButton, Localization::text("LAUNCH_KORVANE"));
    EXPECT_EQ(terminations, 1);
    QTest::qWait(300);
    EXPECT_FALSE(QFile::exists(mark));

    alerts.answers = {AlertPresenter::DefaultReturn};
    agent->engineNotFound();
    EXPECT_EQ(terminations, 2);
    EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(mark); }, 5000));
    EXPECT_TRUE(log.contains(QStringLiteral("-[KorvaneVarden_AppDelegate engineNotFound]")));
}

TEST_F(EngineReactionsTest, MissingDefinitionsRunTheUpdaterOrQuit)
{
    const QString arguments = engine.filePath("updater-arguments");
    engine.writeScript("bin/RunFreshclam", "echo \"$@\" > '" + arguments.toUtf8() + "'\nexit 1\n");

    alerts.answers = {AlertPresenter::AlternateReturn};
    agent->needToUpdateDB();
    EXPECT_EQ(terminations, 1);
    EXPECT_EQ(alerts.alerts.first().informativeText, Localization::text("MISSING_DEFS"));

    alerts.answers = {AlertPresenter::DefaultReturn};
    agent->needToUpdateDB();
    EXPECT_EQ(terminations, 1);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !notifications.delivered.isEmpty(); }, 10000));
    EXPECT_EQ(notifications.delivered.first().second, Localization::text("UPDATE_COMPLETE"));
    QFile recorded(arguments);
    ASSERT_TRUE(recorded.open(QIODevice::ReadOnly));
    EXPECT_EQ(recorded.readAll().trimmed(),
              "--stdout --log=" + engine.filePath("freshclam.log").toUtf8() + " --on-update-execute=EXIT_1");
}

TEST_F(EngineReactionsTest, EveryUpdateEndStopsTheAnimationNotifiesByStatusAndChecksAgain)
{
    const QList<QPair<int, const char *>> cases{
        {0, "UPDATE_ALREADY"}, {1, "UPDATE_COMPLETE"}, {9, nullptr}, {2, "UPDATE_CRASHED"}, {-1, "UPDATE_CRASHED"}};
    for (const auto &[status, key] : cases) {
        notifications.delivered.clear();
        const int failedStartsBefore = log.count(QStringLiteral("-[KorvaneVarden_AppDelegate clamdFailedToStart]"));
        agent->setReadyToScan(true);
        agent->utils()->updateStarted();
        EXPECT_TRUE(agent->utils()->updating());
        EXPECT_FALSE(agent->readyToScan());
        EXPECT_TRUE(agent->throbberAnimationTimer()->isActive());
        EXPECT_EQ(agent->throbberAnimationCurrentFrame(), 8);

        agent->utils()->updateFinishedWithStatus(status);

        EXPECT_FALSE(agent->throbberAnimationTimer()->isActive());
        EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberWatchingImage().cacheKey());
        EXPECT_FALSE(agent->utils()->updating());
        EXPECT_FALSE(agent->readyToScan()) << "scanning resumes only through the engine check";
        if (key) {
            ASSERT_EQ(notifications.delivered.size(), 1) << status;
            EXPECT_TRUE(notifications.delivered.first().first.isEmpty());
            EXPECT_EQ(notifications.delivered.first().second, Localization::text(key));
        } else {
            EXPECT_TRUE(notifications.delivered.isEmpty());
        }
        // The check that follows finds the engine and tries its daemon again.
        EXPECT_TRUE(QTest::qWaitFor(
            [&] {
                return log.count(QStringLiteral("-[KorvaneVarden_AppDelegate clamdFailedToStart]")) == failedStartsBefore + 1;
            },
            10000))
            << status;
    }
}

TEST_F(EngineReactionsTest, EachDaemonReportThatFindsItRunningContinuesTheStartup)
{
    agent->clamdAlreadyRunning();
    EXPECT_FALSE(agent->startingUp());
    EXPECT_TRUE(agent->readyToScan());
    agent->setReadyToScan(false);
    agent->clamdStarted();
    EXPECT_TRUE(agent->readyToScan());
}

TEST_F(EngineReactionsTest, UpdateProgressChangesNothingOnScreen)
{
    const qint64 before = agent->throbberStatusItem()->image().cacheKey();
    agent->updateProgressWithMessage(QStringLiteral("Downloading daily.cvd "));
    agent->updateProgressWithPercentDone(45.0);
    EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), before);
    EXPECT_TRUE(notifications.delivered.isEmpty());
}

} // namespace
