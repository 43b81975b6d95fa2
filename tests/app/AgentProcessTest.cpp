#include "tests/support/BusTraffic.h"
#include "tests/support/FreshPreferences.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QProcess>
#include <QTest>
#include <gtest/gtest.h>

namespace {

// Korvane takes the agent's name on the session bus to mean that it runs, and
// may at once ask it to quit or restart: by then the agent must be listening.
TEST(AgentProcessTest, TheAgentListensForQuitAndRestartBeforeItsNameAppears)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        GTEST_SKIP() << "needs a session bus (run the suite under dbus-run-session)";
    FreshPreferences home;
    home.writeDomain(
        QStringLiteral("org.korvane.Korvane"),
        {{QStringLiteral("VardenFolderArray"), QVariantList{QVariantMap{{QStringLiteral("pathName"), home.path()}}}}});
    BusTraffic traffic;
    ASSERT_TRUE(traffic.start());

    QProcess agent;
    agent.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    agent.start(QStringLiteral(KORVANE_BINARY_DIR "/bin/KorvaneVarden"), {});
    ASSERT_TRUE(agent.waitForStarted(10000)) << agent.errorString().toStdString();
    const QString agentName = QStringLiteral("org.korvane.KorvaneVarden");
    const bool appeared =
        QTest::qWaitFor([&] { return bus.interface()->isServiceRegistered(agentName).value(); }, 15000);

    QDBusMessage quit = QDBusMessage::createSignal(QStringLiteral("/org/korvane/DistributedNotifications1"),
                                                   QStringLiteral("org.korvane.DistributedNotifications1"),
                                                   QStringLiteral("KorvaneVardenShouldQuit"));
    quit << QStringLiteral("Korvane");
    bus.send(quit);
    const bool ended = agent.waitForFinished(15000);
    if (!ended) {
        agent.kill();
        agent.waitForFinished(5000);
    }
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

} // namespace
