#include "RealEngineAgentFixture.h"

#include "tests/support/RemoteDaemon.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

namespace {

// The whole agent on a prefix made with install-engine --remote: its only
// daemon is a second one on 127.0.0.1, reached over TCP, which the tests
// stop and start again.
class RemoteScanningServiceTest : public RealEngineAgentFixture
{
protected:
    static constexpr int retryMs = 200;

    void SetUp() override
    {
        ASSERT_TRUE(service().isReady()) << service().errorString().toStdString();
        ASSERT_TRUE(service().start());
        QDir().mkpath(home.filePath("Watched"));
        watch(QVariantList{folder(QStringLiteral("~/Watched"))});
    }

    void launch()
    {
        AgentFixture::SetUp();
        agent->utils()->setRemoteServiceRetryMs(retryMs);
        agent->applicationDidFinishLaunching();
    }

    bool waitUntilWatching()
    {
        if (!QTest::qWaitFor([&] { return agent->readyToScan() && agent->watching(); }, 20000))
            return false;
        agent->events()->flushEventStreamSync();
        return true;
    }

    QList<QXUtils::EngineCandidate> engines() override
    {
        const QString prefix = service().enginePath();
        return {{prefix, prefix + QStringLiteral("/share/clamav/freshclam.log")}};
    }

    static RemoteDaemon &service() { return RemoteDaemon::shared(); }

    QByteArray scanLog() const
    {
        QFile file(agent->utils()->pathToScanLog());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QString awayLine() const
    {
        return QStringLiteral("the scanning service at %1 does not answer: asking again every 0.2 s")
            .arg(service().address());
    }
};

TEST_F(RemoteScanningServiceTest, FilesOfABurstWaitWhileTheServiceIsStoppedAndAreAllScannedOnceItAnswersAgain)
{
    launch();
    ASSERT_TRUE(waitUntilWatching());
    QStringList infected;
    for (int i = 0; i < 8; ++i)
        infected << write(QStringLiteral("early-%1.com").arg(i));
    ASSERT_TRUE(service().stop());
    for (int i = 0; i < 8; ++i) {
        infected << write(QStringLiteral("late-%1.txt").arg(i), EngineFixture::markerContents());
        write(QStringLiteral("clean-%1.txt").arg(i), "nothing to see here");
    }

    // Files written after the stop can only have met a silent service.
    ASSERT_TRUE(QTest::qWaitFor([&] { return log.contains(awayLine()); }, 30000))
        << log.lines().join('\n').toStdString();
    ASSERT_TRUE(QTest::qWaitFor([&] { return agent->utils()->batchWaitsForRemoteService(); }, 30000));
    QTest::qWait(5 * retryMs);
    EXPECT_TRUE(agent->utils()->batchWaitsForRemoteService());
    EXPECT_FALSE(agent->readyToScan());
    for (const QString &path : infected.mid(8))
        EXPECT_FALSE(listedPaths().contains(path)) << path.toStdString();

    ASSERT_TRUE(service().start());
    ASSERT_TRUE(waitUntilListed(infected)) << listedPaths().join('\n').toStdString();
    ASSERT_TRUE(waitUntilIdle());
    for (const QString &path : infected)
        EXPECT_EQ(listedPaths().count(path), 1) << path.toStdString();
    EXPECT_EQ(listedPaths().size(), infected.size());
    const QByteArray logged = scanLog();
    EXPECT_TRUE(logged.contains(infected.first().toUtf8() + ": " + EngineFixture::eicarSignatureName().toUtf8()
                                + ".UNOFFICIAL FOUND\n"))
        << logged.toStdString();
    EXPECT_TRUE(logged.contains(home.filePath("Watched/clean-0.txt").toUtf8() + ": OK\n"));
    EXPECT_EQ(log.count(awayLine()), 1);
    // Nothing local was started or asked for.
    EXPECT_FALSE(log.contains(QStringLiteral("starting clamd...")));
    EXPECT_FALSE(QFileInfo::exists(service().enginePath() + "/run"));
}

TEST_F(RemoteScanningServiceTest, AgentLaunchedWhileTheServiceIsAwayStartsWatchingOnceItAnswers)
{
    ASSERT_TRUE(service().stop());
    launch();
    ASSERT_TRUE(QTest::qWaitFor([&] { return log.contains(awayLine()); }, 20000));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return log.contains(QStringLiteral("-[KorvaneVarden_AppDelegate clamdFailedToStart]")); }, 5000));
    QTest::qWait(5 * retryMs);
    EXPECT_FALSE(agent->watching());
    EXPECT_TRUE(alerts.alerts.isEmpty());

    ASSERT_TRUE(service().start());
    ASSERT_TRUE(waitUntilWatching());
    const QString eicar = write("eicar.com");
    ASSERT_TRUE(waitUntilListed(eicar));
    EXPECT_EQ(log.count(QStringLiteral("-[KorvaneVarden_AppDelegate clamdFailedToStart]")), 1);
}

TEST_F(RemoteScanningServiceTest, AbortingScansEndsTheWaitForTheService)
{
    launch();
    ASSERT_TRUE(waitUntilWatching());
    ASSERT_TRUE(service().stop());
    const QString dropped = write("dropped.com");
    ASSERT_TRUE(QTest::qWaitFor([&] { return agent->utils()->batchWaitsForRemoteService(); }, 30000));

    // Aborting stops scan programs by name: a name of this test's own keeps
    // everyone else's scans running.
    const QStringList programs = KorvaneVarden_AppDelegate::scanProgramNames();
    KorvaneVarden_AppDelegate::setScanProgramNames(
        {QStringLiteral("kvscan%1").arg(QCoreApplication::applicationPid())});
    agent->reallyAbortScans(nullptr);
    KorvaneVarden_AppDelegate::setScanProgramNames(programs);
    EXPECT_FALSE(agent->utils()->batchWaitsForRemoteService());
    EXPECT_TRUE(QTest::qWaitFor([&] { return agent->readyToScan(); }, 5000));

    // A batch still waiting would be scanned at the first answer, before
    // any file written after it.
    ASSERT_TRUE(service().start());
    const QString later = write("later.com");
    ASSERT_TRUE(waitUntilListed(later));
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_FALSE(listedPaths().contains(dropped));
}

} // namespace
