#include "AgentFixture.h"

#include "app/Dispatcher.h"
#include "events/SCEvents.h"
#include "platform/DBusDistributedNotificationCenter.h"
#include "platform/StatusItem.h"
#include "platform/UserDefaults.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QDBusConnection>
#include <QFile>
#include <QProcess>
#include <QTest>

namespace {

bool sessionBusAvailable()
{
    return QDBusConnection::sessionBus().isConnected();
}

QString writeFile(const TemporaryHome &home, const QString &name)
{
    return home.writeFile(name, "contents");
}

TEST_F(AgentFixture, LaunchTitlesTheWindowAndColumnsAndShowsTheDefaultImage)
{
    agent->applicationDidFinishLaunching();
    EXPECT_EQ(agent->infectionListWindow()->windowTitle(), QStringLiteral("Infected Items"));
    QXTInfectedViewArrayController *list = agent->infectedList();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->columnCount(), 3);
    EXPECT_EQ(list->headerData(1, Qt::Horizontal).toString(), QStringLiteral("Infection"));
    EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberDefaultImage().cacheKey());
    EXPECT_FALSE(agent->wantScanStatusUpdates());
    EXPECT_TRUE(agent->wantUpdatePercentages());
    EXPECT_TRUE(agent->startingUp());
    EXPECT_FALSE(agent->readyToScan());
    EXPECT_FALSE(agent->needGfslogger());
}

TEST_F(AgentFixture, FirstContinueStartupMakesTheAgentReadyAndLaterOnesKeepItReady)
{
    agent->applicationDidFinishLaunching();
    agent->continueStartup();
    EXPECT_FALSE(agent->startingUp());
    EXPECT_TRUE(agent->readyToScan());
    agent->setReadyToScan(false);
    agent->continueStartup();
    EXPECT_TRUE(agent->readyToScan());
}

TEST_F(AgentFixture, UpdateOnLaunchKeepsTheAgentFromScanningUntilStartupContinuesAgain)
{
    home.writeDomain(QStringLiteral("org.korvane.Korvane"), {{QStringLiteral("UpdateDefsOnLaunch"), true}});
    agent->applicationDidFinishLaunching();
    agent->continueStartup();
    EXPECT_FALSE(agent->readyToScan());
    agent->continueStartup();
    EXPECT_TRUE(agent->readyToScan());
}

TEST_F(AgentFixture, StartScanHandsTheWholeReadyListOverAsOneBatch)
{
    agent->applicationDidFinishLaunching();
    agent->continueStartup();
    agent->dispatcher()->dispatchTimer()->stop();
    agent->dispatcher()->addToWaitingList(writeFile(home, "one"));
    agent->dispatcher()->addToWaitingList(writeFile(home, "two"));

    agent->dispatcher()->updateSizesInWaitingList();

    EXPECT_TRUE(log.contains(QStringLiteral("itemsToScan.count: 2")));
    EXPECT_TRUE(agent->utils()->scanning());
    EXPECT_FALSE(agent->readyToScan());
    EXPECT_TRUE(agent->dispatcher()->readyList().isEmpty());
}

TEST_F(AgentFixture, StartScanWhileTheCoordinatorScansLeavesTheReadyListAlone)
{
    agent->dispatcher()->dispatchTimer()->stop();
    agent->utils()->setScanning(true);
    agent->setReadyToScan(true);
    const QString path = writeFile(home, "waiting");
    agent->dispatcher()->addToWaitingList(path);

    agent->dispatcher()->updateSizesInWaitingList();

    EXPECT_EQ(agent->dispatcher()->readyList(), QStringList{path});
    EXPECT_FALSE(agent->readyToScan());
    EXPECT_FALSE(log.anyContains(QStringLiteral("itemsToScan.count")));
}

TEST_F(AgentFixture, ScanEndAndScanCrashBothMakeTheAgentReadyWithTheWatchingImage)
{
    agent->applicationDidFinishLaunching();
    for (bool crash : {false, true}) {
        agent->setReadyToScan(false);
        agent->utils()->setScanning(true);
        agent->scanStarted();
        EXPECT_TRUE(agent->throbberAnimationTimer()->isActive());
        EXPECT_EQ(agent->throbberAnimationTimer()->interval(), 125);
        if (crash)
            agent->scanCrashed(QStringLiteral("launch path not accessible"));
        else
            agent->scanFinishedWithStatus(2);
        EXPECT_FALSE(agent->throbberAnimationTimer()->isActive());
        EXPECT_FALSE(agent->utils()->scanning());
        EXPECT_TRUE(agent->readyToScan());
        EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberWatchingImage().cacheKey());
    }
    EXPECT_TRUE(log.contains(QStringLiteral("-[KorvaneVarden_AppDelegate scanCrashed:]:launch path not accessible")));
}

TEST_F(AgentFixture, BatchReadyDuringAScanLeavesAtTheNextTickNotAtTheScanEnd)
{
    agent->dispatcher()->dispatchTimer()->stop();
    agent->utils()->setScanning(true);
    const QString path = writeFile(home, "later");
    agent->dispatcher()->addToWaitingList(path);
    agent->dispatcher()->updateSizesInWaitingList();

    agent->scanFinishedWithStatus(0);
    EXPECT_EQ(agent->dispatcher()->readyList(), QStringList{path});

    agent->dispatcher()->updateSizesInWaitingList();
    EXPECT_TRUE(agent->dispatcher()->readyList().isEmpty());
    EXPECT_TRUE(log.contains(QStringLiteral("itemsToScan.count: 1")));
}

TEST_F(AgentFixture, ScanAnimationRunsForwardAndWrapsAfterTheLastFrame)
{
    agent->applicationDidFinishLaunching();
    agent->scanStarted();
    for (int tick = 0; tick < 9; ++tick) {
        agent->forwardAnimation();
        EXPECT_EQ(agent->throbberStatusItem()->image().cacheKey(), agent->throbberAnimationFrames().at(tick).cacheKey());
    }
    EXPECT_EQ(agent->throbberAnimationCurrentFrame(), 0);
    agent->setThrobberAnimationCurrentFrame(0);
    agent->reverseAnimation();
    EXPECT_EQ(agent->throbberAnimationCurrentFrame(), 8);
}

TEST_F(AgentFixture, SleepWhileNotWatchingOnlySaysGoodNightAndWakeDoesNotStartWatching)
{
    agent->applicationDidFinishLaunching();
    const qsizetype before = log.lines().size();
    emit sleep.willSleep();
    emit sleep.didWake();
    EXPECT_EQ(log.lines().mid(before), (QStringList{QStringLiteral("Nighty night!"), QStringLiteral("Wakey wakey!")}));
    EXPECT_FALSE(agent->startWatchingAfterSleep());
}

TEST_F(AgentFixture, SleepWhileWatchingStopsAndWakingStartsAFreshWatch)
{
    home.writeFile("Guarded/.keep", "");
    home.writeDomain(QStringLiteral("org.korvane.Korvane"),
                     {{QStringLiteral("VardenFolderArray"),
                       QVariantList{QVariantMap{{QStringLiteral("pathName"), home.filePath("Guarded")}}}}});
    agent->applicationDidFinishLaunching();
    agent->startWatching(nullptr);
    ASSERT_TRUE(agent->watching());
    SCEvents *beforeSleep = agent->events();

    emit sleep.willSleep();
    EXPECT_TRUE(log.contains(QStringLiteral(
        "We're currently watching for changes, so stop and then register to know when we wake up again")));
    EXPECT_TRUE(log.contains(QStringLiteral("Nighty night!")));
    EXPECT_FALSE(agent->watching());
    EXPECT_FALSE(beforeSleep->isWatchingPaths());
    EXPECT_TRUE(agent->startWatchingAfterSleep());

    emit sleep.didWake();
    EXPECT_TRUE(log.contains(QStringLiteral("Wakey wakey!")));
    EXPECT_TRUE(agent->watching());
    EXPECT_TRUE(agent->events()->isWatchingPaths());
    EXPECT_EQ(agent->theLastEventSeen(), SCEvents::sinceNow);
    EXPECT_FALSE(agent->startWatchingAfterSleep());
    EXPECT_TRUE(alerts.alerts.isEmpty());
}

TEST_F(AgentFixture, QuitClearsTheUpdateKeysOfTheAgentsOwnDomainOnly)
{
    const QString agentDomain = QStringLiteral("org.korvane.KorvaneVarden");
    const QString companionDomain = QStringLiteral("org.korvane.Korvane");
    home.writeDomain(agentDomain, {{QStringLiteral("SUEnableAutomaticChecks"), true},
                                   {QStringLiteral("SULastCheckTime"), QDateTime::currentDateTimeUtc()},
                                   {QStringLiteral("lastEvent"), 42}});
    home.writeDomain(companionDomain, {{QStringLiteral("SUEnableAutomaticChecks"), true}});
    agent->applicationDidFinishLaunching();

    agent->quit(nullptr);

    const QVariantMap own = home.readDomain(agentDomain);
    EXPECT_FALSE(own.contains(QStringLiteral("SUEnableAutomaticChecks")));
    EXPECT_FALSE(own.contains(QStringLiteral("SULastCheckTime")));
    // Quitting stops watching, which records the last event seen: none.
    EXPECT_EQ(own.value(QStringLiteral("lastEvent")).toULongLong(), ~quint64(0));
    EXPECT_TRUE(home.readDomain(companionDomain).contains(QStringLiteral("SUEnableAutomaticChecks")));
    EXPECT_EQ(terminations, 1);
}

TEST_F(AgentFixture, RestartLaunchesTheRelaunchToolWithOurPathAndPidAndKeepsTheUpdateKeys)
{
    const QString agentDomain = QStringLiteral("org.korvane.KorvaneVarden");
    const QVariantMap before{{QStringLiteral("SUEnableAutomaticChecks"), true},
                             {QStringLiteral("SULastCheckTime"), QDateTime(QDate(2026, 1, 2), QTime(3, 4), Qt::UTC)}};
    home.writeDomain(agentDomain, before);
    const QString record = home.filePath("relaunched-with");
    const QString tool = home.writeFile("tools/relaunch", "#!/bin/sh\necho \"$1 $2\" > '" + record.toUtf8() + "'\n");
    QFile::setPermissions(tool, QFile::permissions(tool) | QFile::ExeOwner);
    KorvaneVarden_AppDelegate::setRelaunchToolPath(tool);
    agent->applicationDidFinishLaunching();

    agent->restartVarden(nullptr);
    KorvaneVarden_AppDelegate::setRelaunchToolPath({});

    EXPECT_EQ(terminations, 1);
    EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(record) && QFileInfo(record).size() > 0; }, 5000));
    QFile recorded(record);
    recorded.open(QIODevice::ReadOnly);
    EXPECT_EQ(recorded.readAll().trimmed(),
              (QCoreApplication::applicationFilePath() + " " + QString::number(QCoreApplication::applicationPid())).toUtf8());
    const QVariantMap after = home.readDomain(agentDomain);
    for (auto key = before.keyBegin(); key != before.keyEnd(); ++key)
        EXPECT_EQ(after.value(*key), before.value(*key)) << key->toStdString();
}

class AgentOnTheSessionBusTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        if (!sessionBusAvailable())
            GTEST_SKIP() << "needs a session bus (run the suite under dbus-run-session)";
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
    }

    static void send(const QString &name)
    {
        const int status = QProcess::execute(
            QStringLiteral("dbus-send"),
            {QStringLiteral("--session"), QStringLiteral("--type=signal"), QStringLiteral("/org/korvane/DistributedNotifications1"),
             QStringLiteral("org.korvane.DistributedNotifications1.") + name, QStringLiteral("string:Korvane")});
        ASSERT_EQ(status, 0);
    }
};

TEST_F(AgentOnTheSessionBusTest, QuitNotificationFromAnotherProcessEndsTheAgentAndAnnouncesIt)
{
    // Heard on a connection of its own, as another program would.
    DBusDistributedNotificationCenter listener(QDBusConnection::connectToBus(QDBusConnection::SessionBus, "listener"));
    QObject observer;
    QStringList heard;
    listener.addObserver(&observer, QStringLiteral("KorvaneVardenHasQuit"),
                         [&](const QString &object) { heard.append(object); });

    send(QStringLiteral("KorvaneVardenShouldQuit"));

    EXPECT_TRUE(QTest::qWaitFor([&] { return terminations == 1 && heard.size() == 1; }, 5000));
    EXPECT_EQ(heard, QStringList{QStringLiteral("KorvaneVarden")});
    QDBusConnection::disconnectFromBus("listener");
}

TEST_F(AgentOnTheSessionBusTest, RestartNotificationFromAnotherProcessRelaunchesWithoutAnnouncingAQuit)
{
    KorvaneVarden_AppDelegate::setRelaunchToolPath(home.filePath("no-such-tool"));
    DBusDistributedNotificationCenter listener(QDBusConnection::connectToBus(QDBusConnection::SessionBus, "listener2"));
    QObject observer;
    int quits = 0;
    listener.addObserver(&observer, QStringLiteral("KorvaneVardenHasQuit"), [&](const QString &) { ++quits; });

    send(QStringLiteral("KorvaneVardenShouldRestart"));

    EXPECT_TRUE(QTest::qWaitFor([&] { return terminations == 1; }, 5000));
    QTest::qWait(200);
    EXPECT_EQ(quits, 0);
    KorvaneVarden_AppDelegate::setRelaunchToolPath({});
    QDBusConnection::disconnectFromBus("listener2");
}

TEST_F(AgentOnTheSessionBusTest, AfterQuitTheAgentNoLongerListens)
{
    agent->quit(nullptr);
    send(QStringLiteral("KorvaneVardenShouldQuit"));
    QTest::qWait(300);
    EXPECT_EQ(terminations, 1);
}

} // namespace
