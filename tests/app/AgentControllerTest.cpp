#include "AgentFixture.h"

#include "app/Dispatcher.h"
#include "events/SCEvents.h"
#include "platform/DBusDistributedNotificationCenter.h"
#include "tests/support/MountedTmpfs.h"
#include "tests/support/RecordingNotificationCenter.h"
#include "tests/support/RestoredVariable.h"
#include "ui/InfectedItemsWindow.h"

#include <QDBusConnection>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

// Scans started while the update asked for at launch was still to come.
TEST_F(AgentFixture, LaunchWaitsForStartupWhichAnUpdateOnLaunchHoldsBackOnce)
{
    home.writeDomain(companionDomain, {{QStringLiteral("UpdateDefsOnLaunch"), true},
                                       {QStringLiteral("VardenFolderArray"), QVariantList{folder(home.path())}}});
    agent->applicationDidFinishLaunching();
    EXPECT_EQ(shownImage(), agent->throbberDefaultImage().cacheKey());
    EXPECT_TRUE(agent->startingUp());
    EXPECT_FALSE(agent->readyToScan());

    agent->continueStartup();
    EXPECT_FALSE(agent->startingUp());
    EXPECT_FALSE(agent->readyToScan());
    agent->continueStartup();
    EXPECT_TRUE(agent->readyToScan());
}

TEST_F(AgentFixture, BatchReadyDuringAScanStaysReadyUntilTheFirstTickAfterTheScanAndLeavesWhole)
{
    Dispatcher *dispatcher = agent->dispatcher();
    dispatcher->dispatchTimer()->stop();
    agent->utils()->setScanning(true);
    agent->setReadyToScan(true);
    const QStringList batch{home.writeFile("one", "contents"), home.writeFile("two", "contents")};
    for (const QString &path : batch)
        dispatcher->addToWaitingList(path);

    dispatcher->updateSizesInWaitingList(); // asks to scan while the coordinator still scans
    EXPECT_FALSE(agent->readyToScan());
    agent->scanFinishedWithStatus(0);
    QStringList ready = dispatcher->readyList();
    ready.sort(); // the waiting list has no order
    EXPECT_EQ(ready, batch);

    dispatcher->updateSizesInWaitingList();
    EXPECT_TRUE(dispatcher->readyList().isEmpty());
    EXPECT_TRUE(agent->utils()->scanning());
    EXPECT_FALSE(agent->readyToScan());
}

TEST_F(AgentFixture, BatchLosesItsExcludedPathsBeforeTheScanAndOneLeftEmptyStartsNoScan)
{
    Dispatcher *dispatcher = agent->dispatcher();
    dispatcher->dispatchTimer()->stop();
    home.writeDomain(companionDomain,
                     {{QStringLiteral("ExcludePatterns"),
                       QVariantList{QVariantMap{{QStringLiteral("excludePattern"), QStringLiteral("/Private/")},
                                                {QStringLiteral("excludeEnabled"), true}}}}});
    const QString excluded = home.writeFile("Private/one", "contents");
    const QString trashed = home.writeFile(".local/share/Trash/files/two", "contents");
    const QString plain = home.writeFile("Documents/three", "contents");
    struct Row
    {
        QStringList batch;
        bool scanStarted;
    } rows[] = {{{excluded, trashed}, false}, {{excluded, plain}, true}, {{plain}, true}};
    for (const auto &[batch, scanStarted] : rows) {
        SCOPED_TRACE(batch.join(' ').toStdString());
        agent->utils()->setScanning(false);
        agent->setReadyToScan(true);
        for (const QString &path : batch)
            dispatcher->addToWaitingList(path);
        dispatcher->updateSizesInWaitingList();

        EXPECT_EQ(agent->utils()->scanning(), scanStarted);
        EXPECT_EQ(agent->readyToScan(), !scanStarted);
        EXPECT_TRUE(dispatcher->readyList().isEmpty());
    }
}

// A scan that crashed left the agent busy for good, its animation turning.
TEST_F(AgentFixture, AScansEndOrCrashStopsTheAnimationAndMakesTheAgentReadyWithTheWatchingImage)
{
    agent->applicationDidFinishLaunching();
    for (bool crash : {false, true}) {
        SCOPED_TRACE(crash ? "crash" : "end");
        agent->setReadyToScan(false);
        agent->utils()->setScanning(true);
        agent->scanStarted();
        EXPECT_TRUE(agent->throbberAnimationTimer()->isActive());
        crash ? agent->scanCrashed(QStringLiteral("launch path not accessible")) : agent->scanFinishedWithStatus(2);
        EXPECT_FALSE(agent->throbberAnimationTimer()->isActive());
        EXPECT_FALSE(agent->utils()->scanning());
        EXPECT_TRUE(agent->readyToScan());
        EXPECT_EQ(shownImage(), agent->throbberWatchingImage().cacheKey());
    }
}

TEST_F(AgentFixture, SleepStopsARunningWatchAndWakingStartsAFreshOneButNeverOneThatWasOff)
{
    home.writeFile("Guarded/.keep", "");
    watch({folder(home.filePath("Guarded"))});
    agent->applicationDidFinishLaunching();
    emit sleep.willSleep();
    emit sleep.didWake();
    EXPECT_FALSE(agent->watching());

    agent->startWatching(nullptr);
    ASSERT_TRUE(agent->watching());
    SCEvents *beforeSleep = agent->events();
    emit sleep.willSleep();
    EXPECT_FALSE(agent->watching());
    EXPECT_FALSE(beforeSleep->isWatchingPaths());

    emit sleep.didWake();
    EXPECT_TRUE(agent->watching());
    EXPECT_TRUE(agent->events()->isWatchingPaths());
    EXPECT_EQ(agent->theLastEventSeen(), SCEvents::sinceNow);
    EXPECT_FALSE(agent->startWatchingAfterSleep());
    EXPECT_TRUE(alerts.alerts.isEmpty());
}

// Restart and quit arrive from other programs as signals on the session bus.
class AgentOnTheSessionBusTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        if (!QDBusConnection::sessionBus().isConnected())
            GTEST_SKIP() << "needs a session bus (run the suite under dbus-run-session)";
        home.writeDomain(agentDomain, updateKeys);
        home.writeDomain(companionDomain, {{QStringLiteral("SUEnableAutomaticChecks"), true}});
        AgentFixture::SetUp();
        agent->applicationDidFinishLaunching();
        listener.addObserver(&observer, QStringLiteral("KorvaneVardenHasQuit"),
                             [this](const QString &object) { quitsHeard.append(object); });
    }

    static void send(const QString &name)
    {
        ASSERT_EQ(
            QProcess::execute("dbus-send", {"--session", "--type=signal", "/org/korvane/DistributedNotifications1",
                                            "org.korvane.DistributedNotifications1." + name, "string:Korvane"}),
            0);
    }

    const QVariantMap updateKeys{
        {QStringLiteral("SUEnableAutomaticChecks"), true},
        {QStringLiteral("SULastCheckTime"), QDateTime(QDate(2026, 1, 2), QTime(3, 4), Qt::UTC)}};
    // Heard on a connection of its own, as another program would.
    DBusDistributedNotificationCenter listener{
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("listener"))};
    QObject observer;
    QStringList quitsHeard;
};

TEST_F(AgentOnTheSessionBusTest, QuitSignalClearsTheAgentsUpdateKeysAnnouncesTheQuitAndLeavesTheAgentDeaf)
{
    send(QStringLiteral("KorvaneVardenShouldQuit"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return terminations == 1 && quitsHeard.size() == 1; }, 5000));
    EXPECT_EQ(quitsHeard, QStringList{QStringLiteral("KorvaneVarden")});
    const QVariantMap own = home.readDomain(agentDomain);
    EXPECT_FALSE(own.contains(QStringLiteral("SUEnableAutomaticChecks")));
    EXPECT_FALSE(own.contains(QStringLiteral("SULastCheckTime")));
    // Quitting stops watching, which records the last event seen: none.
    EXPECT_EQ(own.value(QStringLiteral("lastEvent")).toULongLong(), ~quint64(0));
    EXPECT_TRUE(home.readDomain(companionDomain).contains(QStringLiteral("SUEnableAutomaticChecks")));

    send(QStringLiteral("KorvaneVardenShouldQuit"));
    QTest::qWait(300);
    EXPECT_EQ(terminations, 1);
    EXPECT_EQ(quitsHeard.size(), 1);
}

TEST_F(AgentOnTheSessionBusTest, RestartSignalRunsACopyOfTheRelaunchToolFromAPrivateFolderWithOurPathAndPid)
{
    // The shared temporary folder and the runtime folder are the test's own.
    QTemporaryDir shared, runtime, open;
    ASSERT_TRUE(shared.isValid() && runtime.isValid() && open.isValid());
    QFile::setPermissions(open.path(), QFile::Permissions(0x7777));
    const RestoredVariable tmp("TMPDIR"), runtimeVariable("XDG_RUNTIME_DIR");
    qputenv("TMPDIR", QFile::encodeName(shared.path()));
    // A file someone placed where a fixed name would go.
    const QString planted = shared.filePath("relaunch");
    QFile plantedFile(planted);
    const QByteArray plantedScript = "#!/bin/sh\nexit 0\n";
    ASSERT_TRUE(plantedFile.open(QIODevice::WriteOnly) && plantedFile.write(plantedScript) > 0);
    plantedFile.close();
    const QString ran = engine.filePath("relaunched-with");
    KorvaneVarden_AppDelegate::setRelaunchToolPath(
        engine.writeScript("relaunch", "echo \"$0 $1 $2\" > '" + ran.toUtf8() + "'\n"));

    // An unset runtime folder, or one that others may write, is not used.
    for (const QString &runtimeDir : {runtime.path(), QString(), open.path()}) {
        SCOPED_TRACE(runtimeDir.toStdString());
        if (runtimeDir.isEmpty())
            qunsetenv("XDG_RUNTIME_DIR");
        else
            qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtimeDir));
        QFile::remove(ran);
        TearDown();
        SetUp();
        terminations = 0;
        send(QStringLiteral("KorvaneVardenShouldRestart"));
        EXPECT_TRUE(QTest::qWaitFor([&] { return terminations == 1; }, 5000));
        ASSERT_TRUE(QTest::qWaitFor([&] { return !engine.readFile("relaunched-with").isEmpty(); }, 5000));
        const QStringList words = QString::fromUtf8(engine.readFile("relaunched-with").trimmed()).split(' ');
        ASSERT_EQ(words.size(), 3);
        EXPECT_EQ(words.mid(1), (QStringList{QCoreApplication::applicationFilePath(),
                                             QString::number(QCoreApplication::applicationPid())}));
        const QFileInfo copy(words.first());
        EXPECT_EQ(copy.fileName(), QStringLiteral("relaunch"));
        if (runtimeDir == runtime.path()) {
            EXPECT_EQ(copy.path(), runtime.path());
        } else {
            EXPECT_EQ(QFileInfo(copy.path()).path(), shared.path());
            EXPECT_EQ(QFile::permissions(copy.path()) & QFile::Permissions(0x0077), QFile::Permissions());
        }
        const QVariantMap own = home.readDomain(agentDomain);
        for (const QString &key : updateKeys.keys())
            EXPECT_EQ(own.value(key), updateKeys.value(key)) << key.toStdString();
    }
    KorvaneVarden_AppDelegate::setRelaunchToolPath({});
    QTest::qWait(200);
    EXPECT_TRUE(quitsHeard.isEmpty());
    ASSERT_TRUE(plantedFile.open(QIODevice::ReadOnly));
    EXPECT_EQ(plantedFile.readAll(), plantedScript);
}

// A temporary folder that runs no programs, or a relaunch tool that cannot
// run at all, must not end the agent in silence.
TEST_F(AgentOnTheSessionBusTest, ARelaunchToolWhoseCopyCannotRunRunsInPlaceAndOneThatCannotRunAtAllIsReported)
{
    MountedTmpfs noexec(1024 * 1024, false);
    if (!noexec.isMounted())
        GTEST_SKIP() << noexec.reason().toStdString();
    const RestoredVariable tmp("TMPDIR"), runtimeVariable("XDG_RUNTIME_DIR");
    qputenv("TMPDIR", QFile::encodeName(noexec.path()));
    qunsetenv("XDG_RUNTIME_DIR");
    const QString ran = engine.filePath("relaunched-with");
    const QString tool = engine.writeScript("relaunch", "echo \"$0\" > '" + ran.toUtf8() + "'\n");
    const QString broken = engine.writeFile("broken/relaunch", "#!/bin/sh\nexit 0\n");

    struct Case
    {
        QString tool;
        bool relaunches;
    };
    for (const Case &c : {Case{tool, true}, Case{broken, false}}) {
        SCOPED_TRACE(c.tool.toStdString());
        QFile::remove(ran);
        TearDown();
        SetUp();
        terminations = 0;
        RecordingNotificationCenter notifications;
        KorvaneVarden_AppDelegate::setRelaunchToolPath(c.tool);
        send(QStringLiteral("KorvaneVardenShouldRestart"));
        EXPECT_TRUE(QTest::qWaitFor([&] { return terminations == 1; }, 5000));
        // The guard's status may be told too; only the restart's own notice counts here.
        QStringList told;
        for (const auto &[title, text] : std::as_const(notifications.delivered)) {
            if (title == QStringLiteral("KorvaneVarden could not restart"))
                told << text;
        }
        if (c.relaunches) {
            (void)QTest::qWaitFor([&] { return !engine.readFile("relaunched-with").isEmpty(); }, 5000);
            EXPECT_EQ(QString::fromUtf8(engine.readFile("relaunched-with").trimmed()), tool);
            EXPECT_TRUE(told.isEmpty());
        } else {
            ASSERT_EQ(told.size(), 1);
            EXPECT_TRUE(told.first().contains(broken));
            EXPECT_TRUE(log.anyContains(QStringLiteral("cannot start the relaunch tool")));
        }
    }
    KorvaneVarden_AppDelegate::setRelaunchToolPath({});
}

TEST_F(AgentOnTheSessionBusTest, AQuitThatArrivesWhileAnAlertIsOpenRunsOnceAndTheAnswerStartsNothingMore)
{
    alerts.answers = {AlertPresenter::AlternateReturn};
    alerts.whileOpen = [this] {
        send(QStringLiteral("KorvaneVardenShouldQuit"));
        EXPECT_TRUE(QTest::qWaitFor([&] { return quitsHeard.size() == 1; }, 5000));
    };
    // Nothing to watch: the alert that offers to quit.
    agent->continueStartup();
    ASSERT_EQ(alerts.alerts.size(), 1);
    EXPECT_EQ(terminations, 1);
    EXPECT_FALSE(agent->readyToScan());

    // A later quit announces nothing: the listener hears a marker sent after it first.
    agent->quit(nullptr);
    send(QStringLiteral("KorvaneVardenHasQuit"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return quitsHeard.size() == 2; }, 5000));
    EXPECT_EQ(quitsHeard.last(), QStringLiteral("Korvane"));
    EXPECT_EQ(terminations, 1);
}

} // namespace
