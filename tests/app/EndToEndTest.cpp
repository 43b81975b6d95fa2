#include "app/Dispatcher.h"
#include "app/KorvaneVarden_AppDelegate.h"
#include "events/SCEvents.h"
#include "platform/ApplicationHost.h"
#include "platform/SleepWakeNotifier.h"
#include "tests/support/AnsweringAlertPresenter.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"
#include "tests/support/FakeNotificationService.h"
#include "ui/InfectedItemsWindow.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QDir>
#include <QFile>
#include <QTest>
#include <gtest/gtest.h>

namespace {

// The whole agent against the real daemon, real folder events and a
// notification server on the test's own session bus: a watched folder in a
// temporary home, files written into it, rows in the list.
class EndToEndTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!QDBusConnection::sessionBus().isConnected())
            GTEST_SKIP() << "needs a session bus (ctest gives each test one)";
        notifications = std::make_unique<FakeNotificationService>(
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("notification-service")));
        ASSERT_TRUE(notifications->isRegistered());
        engine = &EngineFixture::shared();
        ASSERT_TRUE(engine->isReady()) << engine->errorString().toStdString();
        watched = home.filePath("Watched");
        QDir().mkpath(watched);
        home.writeDomain(QStringLiteral("org.korvane.Korvane"),
                         {{QStringLiteral("VardenFolderArray"),
                           QVariantList{QVariantMap{{QStringLiteral("pathName"), QStringLiteral("~/Watched")}}}}});
        SleepWakeNotifier::setSharedNotifier(&sleep);
        ApplicationHost::setTerminateHandler([this] { agent->applicationWillTerminate(); });
        agent = std::make_unique<KorvaneVarden_AppDelegate>(QList<QXUtils::EngineCandidate>{
            {engine->enginePath(), engine->enginePath() + QStringLiteral("/share/clamav/freshclam.log")}});
        agent->applicationDidFinishLaunching();
        // Launch finds the running daemon and starts watching.
        ASSERT_TRUE(QTest::qWaitFor([&] { return agent->readyToScan() && agent->watching(); }, 20000));
        agent->events()->flushEventStreamSync();
    }

    void TearDown() override
    {
        agent.reset();
        notifications.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("notification-service"));
        ApplicationHost::setTerminateHandler({});
        SleepWakeNotifier::setSharedNotifier(nullptr);
    }

    QStringList listedPaths() const
    {
        QStringList paths;
        for (const InfectedItem &item : agent->infectedList()->arrangedObjects())
            paths << item.value(QStringLiteral("filePath")).toString();
        return paths;
    }

    bool waitUntilListed(const QString &path, int ms = 30000)
    {
        return QTest::qWaitFor([&] { return listedPaths().contains(path); }, ms);
    }

    // Waits until the agent has nothing waiting, ready or being scanned.
    bool waitUntilIdle(int ms = 30000)
    {
        return QTest::qWaitFor(
            [&] {
                return agent->dispatcher()->waitingList().isEmpty() && agent->dispatcher()->readyList().isEmpty()
                    && !agent->utils()->scanning();
            },
            ms);
    }

    FreshPreferences home;
    LogCapture log;
    AnsweringAlertPresenter alerts;
    std::unique_ptr<FakeNotificationService> notifications;
    SleepWakeNotifier sleep;
    EngineFixture *engine = nullptr;
    QString watched;
    std::unique_ptr<KorvaneVarden_AppDelegate> agent;
};

TEST_F(EndToEndTest, InfectedFilesAreListedOnceAndCleanOnesNot)
{
    const QString eicar = home.writeFile("Watched/eicar.com", EngineFixture::eicarContents());
    const QString clean = home.writeFile("Watched/notes.txt", "nothing to see here");
    const QString nested = watched + QStringLiteral("/later/deeper/marker.txt");
    QDir().mkpath(watched + QStringLiteral("/later/deeper"));
    home.writeFile("Watched/later/deeper/marker.txt", EngineFixture::markerContents());
    const QString sample = watched + QStringLiteral("/clam.exe");
    ASSERT_TRUE(QFile::copy(QStringLiteral("/usr/share/clamav-testfiles/clam.exe"), sample));

    ASSERT_TRUE(waitUntilListed(eicar));
    ASSERT_TRUE(waitUntilListed(nested));
    ASSERT_TRUE(waitUntilListed(sample));
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(listedPaths().count(eicar), 1);
    EXPECT_FALSE(listedPaths().contains(clean));
    EXPECT_EQ(listedPaths().size(), 3);
    EXPECT_TRUE(agent->readyToScan());

    // Each infection is announced on the desktop; a click shows the list.
    const QStringList expected{QStringLiteral("eicar.com infected with ") + EngineFixture::eicarSignatureName(),
                               QStringLiteral("marker.txt infected with ") + EngineFixture::markerSignatureName(),
                               QStringLiteral("clam.exe infected with Korvane.Test.File-clam.exe")};
    auto shownBodies = [&] {
        QStringList bodies;
        for (const FakeNotificationService::Notification &shown : notifications->notifications()) {
            EXPECT_EQ(shown.summary, QStringLiteral("Infection Found!"));
            bodies << shown.body;
        }
        return bodies;
    };
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            const QStringList bodies = shownBodies();
            return std::all_of(expected.begin(), expected.end(), [&](const QString &b) { return bodies.contains(b); });
        },
        10000))
        << shownBodies().join(QStringLiteral(" | ")).toStdString();
    EXPECT_FALSE(agent->infectionListWindow()->isVisible());
    notifications->invokeAction(notifications->notifications().first().id);
    EXPECT_TRUE(QTest::qWaitFor([&] { return agent->infectionListWindow()->isVisible(); }, 5000));

    // The engine's own lines go to the scan log, which watching created.
    QFile scanLog(agent->utils()->pathToScanLog());
    ASSERT_TRUE(scanLog.open(QIODevice::ReadOnly));
    const QByteArray logged = scanLog.readAll();
    EXPECT_TRUE(logged.contains(eicar.toUtf8() + ": " + EngineFixture::eicarSignatureName().toUtf8() + ".UNOFFICIAL FOUND\n"));
    EXPECT_TRUE(logged.contains(clean.toUtf8() + ": OK\n"));
}

TEST_F(EndToEndTest, FileWrittenSlowlyIsScannedOnceItIsComplete)
{
    const QString slow = watched + QStringLiteral("/slow.bin");
    QFile file(slow);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    // Harmless padding first; the infected bytes arrive seconds later.
    for (int step = 0; step < 4; ++step) {
        file.write(QByteArray(4096, 'a'));
        file.flush();
        QTest::qWait(1200);
    }
    file.write(EngineFixture::eicarContents());
    file.close();

    ASSERT_TRUE(waitUntilListed(slow));
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(listedPaths().count(slow), 1);
}

TEST_F(EndToEndTest, FileDeletedBeforeItSettledLeavesNoTrace)
{
    const QString brief = home.writeFile("Watched/brief.com", EngineFixture::eicarContents());
    QFile::remove(brief);
    const QString kept = home.writeFile("Watched/kept.com", EngineFixture::eicarContents());

    ASSERT_TRUE(waitUntilListed(kept));
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_FALSE(listedPaths().contains(brief));
}

TEST_F(EndToEndTest, RestartingTheWatchLosesNoFileThatIsAlreadyWaiting)
{
    // The dispatcher holds still so that the file is surely waiting when the
    // watch restarts.
    agent->dispatcher()->dispatchTimer()->stop();
    const QString early = home.writeFile("Watched/early.com", EngineFixture::eicarContents());
    ASSERT_TRUE(QTest::qWaitFor([&] { return agent->dispatcher()->waitingList().contains(early); }, 15000));
    agent->restartWatching(nullptr);
    agent->events()->flushEventStreamSync();
    agent->dispatcher()->dispatchTimer()->start();
    const QString late = home.writeFile("Watched/late.com", EngineFixture::eicarContents());

    ASSERT_TRUE(waitUntilListed(early));
    ASSERT_TRUE(waitUntilListed(late));
}

} // namespace
