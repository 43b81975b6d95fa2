#include "RealEngineAgentFixture.h"

#include "app/ProtectionStatus.h"
#include "app/SelfTest.h"
#include "platform/InotifyWatcher.h"

#include <QFile>
#include <QTest>

#include <csignal>

namespace {

// The agent's own proof that files go the whole way, against the real
// daemon and real folder events.
class SelfTestTest : public RealEngineAgentFixture
{
protected:
    void SetUp() override { selfTest = true; }

    void TearDown() override
    {
        AgentFixture::TearDown();
        FileSystemWatcher::setFactory({});
    }

    bool waitForStatus(ProtectionStatus::Level level)
    {
        return QTest::qWaitFor([&] { return agent->protectionStatus()->level() == level; }, 20000);
    }
};

TEST_F(SelfTestTest, OnAWorkingAgentItPassesWithoutARowOrALineInTheUsersScanLog)
{
    launchWatching();
    ASSERT_TRUE(QTest::qWaitFor([&] { return agent->selfTest()->reached() == SelfTest::Found; }, 20000));
    EXPECT_EQ(agent->protectionStatus()->level(), ProtectionStatus::Protected)
        << agent->protectionStatus()->description().toStdString();
    EXPECT_TRUE(listedPaths().isEmpty());

    // A user's file after it is scanned as ever, and logged.
    const QString eicar = write("eicar.com");
    ASSERT_TRUE(waitUntilListed(eicar));
    QFile scanLog(agent->utils()->pathToScanLog());
    ASSERT_TRUE(scanLog.open(QIODevice::ReadOnly));
    const QByteArray logged = scanLog.readAll();
    EXPECT_TRUE(logged.contains(eicar.toUtf8()));
    EXPECT_FALSE(logged.contains("self-test")) << logged.toStdString();
    EXPECT_FALSE(QFile::exists(SelfTest::folder() + "/test-file.com"));
}

TEST_F(SelfTestTest, AFolderThatCannotBeWatchedTurnsTheGuardOffWithTheStepThatFailed)
{
    // Room for the user's folder only: the self-test's own cannot be watched.
    FileSystemWatcher::setFactory([](QObject *parent) {
        auto *watcher = new InotifyWatcher(parent);
        watcher->setWatchBudget(1);
        return watcher;
    });
    launchWatching();
    ASSERT_TRUE(waitForStatus(ProtectionStatus::Off)) << agent->protectionStatus()->description().toStdString();
    const QStringList reasons = agent->protectionStatus()->reasons();
    EXPECT_TRUE(reasons.first().contains(QStringLiteral("no folder event"))) << reasons.join('\n').toStdString();
    // The limit that kept the watch from being made is a reason of its own.
    EXPECT_EQ(reasons.filter(QStringLiteral("max_user_watches")).size(), 1) << reasons.join('\n').toStdString();
}

TEST_F(SelfTestTest, ADaemonThatIsGoneForGoodTurnsTheGuardOff)
{
    // A daemon of this test's own, which it ends and keeps from starting again.
    EngineFixture engineOfOurOwn;
    ASSERT_TRUE(engineOfOurOwn.isReady()) << engineOfOurOwn.errorString().toStdString();
    privateEngine = engineOfOurOwn.enginePath();
    launchWatching();
    ASSERT_TRUE(QTest::qWaitFor([&] { return agent->selfTest()->reached() == SelfTest::Found; }, 20000));

    QFile clamd(privateEngine + "/sbin/clamd");
    ASSERT_TRUE(clamd.open(QIODevice::WriteOnly | QIODevice::Truncate));
    clamd.write("#!/bin/sh\nexit 1\n");
    clamd.close();
    ASSERT_EQ(::kill(pid_t(engineOfOurOwn.daemonPid()), SIGKILL), 0);
    agent->runSelfTest();
    ASSERT_TRUE(waitForStatus(ProtectionStatus::Off)) << agent->protectionStatus()->description().toStdString();
}

} // namespace
