#include "tests/support/FreshPreferences.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>
#include <gtest/gtest.h>

namespace {

// Where in the bus's traffic the agent's connection asks for something.
qsizetype positionOfCall(const QString &traffic, const QString &member, const QString &argumentPart)
{
    const QRegularExpression call(
        QStringLiteral("member=%1\\n\\s+string \"[^\"\\n]*%2").arg(member, QRegularExpression::escape(argumentPart)));
    const QRegularExpressionMatch match = call.match(traffic);
    return match.hasMatch() ? match.capturedStart() : -1;
}

// Korvane takes the agent's name on the session bus to mean that it runs, and
// may at once ask it to quit or restart: by then the agent must be listening.
// Whether a signal sent at that moment is lost depends on timing, so what is
// checked is the order the bus itself saw.
TEST(AgentProcessTest, TheAgentListensForQuitAndRestartBeforeItsNameAppears)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        GTEST_SKIP() << "needs a session bus (run the suite under dbus-run-session)";
    FreshPreferences home;
    home.writeDomain(
        QStringLiteral("org.korvane.Korvane"),
        {{QStringLiteral("VardenFolderArray"), QVariantList{QVariantMap{{QStringLiteral("pathName"), home.path()}}}}});

    QProcess monitor;
    monitor.start(QStringLiteral("dbus-monitor"),
                  {QStringLiteral("--session"), QStringLiteral("type='method_call',interface='org.freedesktop.DBus'")});
    ASSERT_TRUE(monitor.waitForStarted(10000)) << monitor.errorString().toStdString();
    QByteArray traffic;
    // It announces itself with the name it is given, once it sees the traffic.
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return (traffic += monitor.readAllStandardOutput()).contains("member=NameAcquired"); }, 10000));

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
    QTest::qWait(200);
    traffic += monitor.readAllStandardOutput();
    monitor.kill();
    monitor.waitForFinished(5000);
    ASSERT_TRUE(appeared);
    EXPECT_TRUE(ended);

    const QString seen = QString::fromUtf8(traffic);
    const qsizetype claimed = positionOfCall(seen, QStringLiteral("RequestName"), agentName + '"');
    ASSERT_GE(claimed, 0) << seen.toStdString();
    for (const QString &name :
         {QStringLiteral("KorvaneVardenShouldQuit"), QStringLiteral("KorvaneVardenShouldRestart")}) {
        SCOPED_TRACE(name.toStdString());
        const qsizetype listening = positionOfCall(seen, QStringLiteral("AddMatch"), "member='" + name + "'");
        ASSERT_GE(listening, 0) << seen.toStdString();
        EXPECT_LT(listening, claimed);
    }
}

} // namespace
