#include "AgentFixture.h"

#include "app/ProtectionStatus.h"
#include "events/SCEvents.h"
#include "platform/AgentStatusService.h"

#include <QDBusConnection>
#include <QDir>
#include <QProcess>
#include <QTest>

namespace {

// What the user, Korvane and a script see of the guard's status: the answer
// on the bus and the tray's tool tip, for situations made for real.
class ProtectionStatusTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        if (!QDBusConnection::sessionBus().isConnected())
            GTEST_SKIP() << "needs a session bus (ctest gives each test one)";
    }

    void launch()
    {
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        // The scripted engine has no daemon to start, which is told; then the
        // startup goes on by hand as if one answered.
        ASSERT_TRUE(QTest::qWaitFor([&] { return agent->protectionStatus()->hasReason(QStringLiteral("daemon")); },
                                    20000));
        agent->clamdAlreadyRunning();
        agent->events()->flushEventStreamSync();
    }

    // What Korvane --status prints and its exit status, asked of this agent
    // under the agent's name.
    std::pair<int, QString> korvaneStatus()
    {
        QDBusConnection::sessionBus().registerService(AgentStatusService::serviceName);
        QProcess korvane;
        korvane.start(QStringLiteral(KORVANE_BINARY_DIR "/bin/Korvane"), {QStringLiteral("--status")});
        // The agent answers on this thread, so the wait must let it run.
        EXPECT_TRUE(QTest::qWaitFor([&] { return korvane.state() == QProcess::NotRunning; }, 20000));
        return {korvane.exitCode(), QString::fromUtf8(korvane.readAllStandardOutput())};
    }

    // The level the bus answers, once it is the expected one with as many
    // reasons as expected, and the reasons.
    AgentStatusService::Answer statusOnceItIs(const QString &level, qsizetype reasons = -1)
    {
        AgentStatusService::Answer answer;
        [[maybe_unused]] const bool settled = QTest::qWaitFor(
            [&] {
                answer = AgentStatusService::ask(2000, QDBusConnection::sessionBus().baseService())
                             .value_or(AgentStatusService::Answer{"no answer", {}});
                return answer.level == level && (reasons < 0 || answer.reasons.size() == reasons);
            },
            10000);
        return answer;
    }
};

TEST_F(ProtectionStatusTest, EachSituationThatLowersTheGuardIsToldWithItsReasonAndItsEndMakesItProtectedAgain)
{
    QDir().mkpath(home.filePath("Watched"));
    home.writeDomain(companionDomain,
                     {{QStringLiteral("VardenFolderArray"),
                       QVariantList{folder(QStringLiteral("~/Watched")), folder(QStringLiteral("~/Later"))}},
                      {QStringLiteral("QuarantineFolder"), QStringLiteral("~")}});
    launch();

    // A watched folder that is not there yet, and a quarantine folder around the watched ones.
    AgentStatusService::Answer answer = statusOnceItIs(QStringLiteral("partial"), 2);
    ASSERT_EQ(answer.level, QStringLiteral("partial")) << answer.reasons.join('\n').toStdString();
    ASSERT_EQ(answer.reasons.size(), 2) << answer.reasons.join('\n').toStdString();
    EXPECT_TRUE(answer.reasons.filter(home.filePath("Later")).size() == 1);
    EXPECT_TRUE(answer.reasons.filter(QStringLiteral("quarantine")).size() == 1);
    const QString tip = agent->throbberStatusItem()->toolTip();
    for (const QString &reason : answer.reasons)
        EXPECT_TRUE(tip.contains(reason)) << tip.toStdString();
    EXPECT_FALSE(agent->throbberStatusItem()->badge().isNull());

    home.writeDomain(companionDomain, {{QStringLiteral("VardenFolderArray"),
                                        QVariantList{folder(QStringLiteral("~/Watched")),
                                                     folder(QStringLiteral("~/Later"))}}});
    QDir().mkpath(home.filePath("Later"));
    agent->restartWatching(nullptr);
    answer = statusOnceItIs(QStringLiteral("protected"));
    EXPECT_EQ(answer.level, QStringLiteral("protected")) << answer.reasons.join('\n').toStdString();
    EXPECT_TRUE(agent->throbberStatusItem()->badge().isNull());
    EXPECT_EQ(korvaneStatus(), std::make_pair(0, QStringLiteral("protected\n")));

    // The user's stop switches the guard off; so does a folder list left empty.
    QObject menuItem;
    agent->stopWatching(&menuItem);
    answer = statusOnceItIs(QStringLiteral("off"));
    EXPECT_EQ(answer.reasons, QStringList{QStringLiteral("watching was stopped")});
    EXPECT_EQ(korvaneStatus(), std::make_pair(1, QStringLiteral("off\n- watching was stopped\n")));
    agent->startWatching(&menuItem);
    EXPECT_EQ(statusOnceItIs(QStringLiteral("protected")).level, QStringLiteral("protected"));

    // Definitions that stopped being updated, checked again with an engine
    // whose daemon cannot be started.
    engine.writeScript("bin/clamscan", "echo 'ClamAV 1.4.6/27400/Sun Nov  1 09:00:00 2026'\n");
    agent->utils()->checkEngine();
    answer = statusOnceItIs(QStringLiteral("off"), 2);
    ASSERT_EQ(answer.reasons.size(), 2) << answer.level.toStdString() << ": " << answer.reasons.join('\n').toStdString();
    EXPECT_TRUE(answer.reasons.at(0).contains(QStringLiteral("daemon"))) << answer.reasons.at(0).toStdString();
    EXPECT_TRUE(answer.reasons.at(1).contains(QStringLiteral("definitions"))) << answer.reasons.at(1).toStdString();
}

} // namespace
