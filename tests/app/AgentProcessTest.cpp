#include "tests/support/BusTraffic.h"
#include "tests/support/FreshPreferences.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QProcess>
#include <QTest>
#include <gtest/gtest.h>

#include <memory>

namespace {

const QString agentName = QStringLiteral("org.korvane.KorvaneVarden");

std::unique_ptr<QProcess> startAgent()
{
    auto agent = std::make_unique<QProcess>();
    agent->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    agent->start(QStringLiteral(KORVANE_BINARY_DIR "/bin/KorvaneVarden"), {});
    return agent;
}

void stop(QProcess &agent)
{
    if (agent.state() == QProcess::NotRunning)
        return;
    agent.terminate();
    if (!agent.waitForFinished(10000)) {
        agent.kill();
        agent.waitForFinished(5000);
    }
}

// Agents run from the built program in a home of the test's own, watching that home.
class AgentProcessTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!bus.isConnected())
            GTEST_SKIP() << "needs a session bus (run the suite under dbus-run-session)";
        home.writeDomain(QStringLiteral("org.korvane.Korvane"),
                         {{QStringLiteral("VardenFolderArray"),
                           QVariantList{QVariantMap{{QStringLiteral("pathName"), home.path()}}}}});
    }
    bool agentOnTheBus() const { return bus.interface()->isServiceRegistered(agentName).value(); }

    QDBusConnection bus = QDBusConnection::sessionBus();
    FreshPreferences home;
};

// Korvane takes the agent's name on the session bus to mean that it runs, and
// may at once ask it to quit or restart: by then the agent must be listening.
TEST_F(AgentProcessTest, TheAgentListensForQuitAndRestartBeforeItsNameAppears)
{
    BusTraffic traffic;
    ASSERT_TRUE(traffic.start());

    const std::unique_ptr<QProcess> agent = startAgent();
    ASSERT_TRUE(agent->waitForStarted(10000)) << agent->errorString().toStdString();
    const bool appeared = QTest::qWaitFor([&] { return agentOnTheBus(); }, 15000);

    QDBusMessage quit = QDBusMessage::createSignal(QStringLiteral("/org/korvane/DistributedNotifications1"),
                                                   QStringLiteral("org.korvane.DistributedNotifications1"),
                                                   QStringLiteral("KorvaneVardenShouldQuit"));
    quit << QStringLiteral("Korvane");
    bus.send(quit);
    const bool ended = agent->waitForFinished(15000);
    stop(*agent);
    ASSERT_TRUE(appeared);
    EXPECT_TRUE(ended);

    const qsizetype claimed = traffic.positionOfCall(QStringLiteral("RequestName"), agentName + '"');
    ASSERT_GE(claimed, 0) << traffic.text().toStdString();
    for (const QString &name :
         {QStringLiteral("KorvaneVardenShouldQuit"), QStringLiteral("KorvaneVardenShouldRestart")}) {
        SCOPED_TRACE(name.toStdString());
        const qsizetype listening = traffic.positionOfCall(QStringLiteral("AddMatch"), "member='" + name + "'");
        ASSERT_GE(listening, 0) << traffic.text().toStdString();
        EXPECT_LT(listening, claimed);
    }
}

// A second agent would scan every file again and rewrite the same list, also
// when both start at the same moment: one is left, and it shows its list.
TEST_F(AgentProcessTest, ASecondAgentOfTheSessionAsksTheFirstToShowItsListAndLeaves)
{
    for (const bool sameMoment : {false, true}) {
        SCOPED_TRACE(sameMoment ? "started at the same moment" : "started once the first runs");
        std::unique_ptr<QProcess> agents[2];
        agents[0] = startAgent();
        if (!sameMoment) {
            ASSERT_TRUE(QTest::qWaitFor([&] { return agentOnTheBus(); }, 15000));
        }
        agents[1] = startAgent();
        const auto running = [&] {
            return int(agents[0]->state() != QProcess::NotRunning) + int(agents[1]->state() != QProcess::NotRunning);
        };
        EXPECT_TRUE(QTest::qWaitFor([&] { return running() < 2; }, 20000)) << "both agents still run";
        // Time for a late second exit to show.
        QTest::qWait(500);
        EXPECT_EQ(running(), 1);
        for (auto &agent : agents) {
            if (agent->state() != QProcess::NotRunning)
                continue;
            EXPECT_EQ(agent->exitStatus(), QProcess::NormalExit);
            EXPECT_EQ(agent->exitCode(), 0);
        }
        QProcess &survivor = agents[0]->state() != QProcess::NotRunning ? *agents[0] : *agents[1];
        if (!sameMoment) {
            EXPECT_EQ(&survivor, agents[0].get());
        }
        EXPECT_EQ(bus.interface()->servicePid(agentName).value(), uint(survivor.processId()));
        // The survivor answers what the second asked: to come forward with its list.
        QDBusMessage activate =
            QDBusMessage::createMethodCall(agentName, QStringLiteral("/org/korvane/KorvaneVarden"),
                                           QStringLiteral("org.freedesktop.Application"), QStringLiteral("Activate"));
        activate << QVariantMap();
        const QDBusMessage answer = bus.call(activate, QDBus::Block, 10000);
        EXPECT_EQ(answer.type(), QDBusMessage::ReplyMessage) << answer.errorMessage().toStdString();

        for (auto &agent : agents)
            stop(*agent);
        ASSERT_TRUE(QTest::qWaitFor([&] { return !agentOnTheBus(); }, 5000));
    }
}

} // namespace
