#include "RealEngineAgentFixture.h"

#include "platform/PropertyList.h"
#include "tests/support/FakeNotificationService.h"
#include "ui/InfectedItemsWindow.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The whole agent against the real daemon, real folder events and a
// notification server on the test's own session bus: a watched folder in a
// temporary home, files written into it, rows in the list.
class EndToEndTest : public RealEngineAgentFixture
{
protected:
    void SetUp() override
    {
        if (!QDBusConnection::sessionBus().isConnected())
            GTEST_SKIP() << "needs a session bus (ctest gives each test one)";
        notifications = std::make_unique<FakeNotificationService>(
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("notification-service")));
        ASSERT_TRUE(notifications->isRegistered());
        launchWatching();
    }

    void TearDown() override
    {
        AgentFixture::TearDown();
        notifications.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("notification-service"));
    }

    std::unique_ptr<FakeNotificationService> notifications;
};

TEST_F(EndToEndTest, InfectedFilesAreListedOnceAndAnnouncedAndCleanOnesOnlyLogged)
{
    // One deleted before it settled must leave no row.
    QFile::remove(write("brief.com"));
    const QString eicar = write("eicar.com");
    const QString clean = write("notes.txt", "nothing to see here");
    const QString nested = write("later/deeper/marker.txt", EngineFixture::markerContents());
    const QString sample = home.filePath("Watched/clam.exe");
    ASSERT_TRUE(QFile::copy(QStringLiteral("/usr/share/clamav-testfiles/clam.exe"), sample));

    for (const QString &path : {eicar, nested, sample})
        ASSERT_TRUE(waitUntilListed(path)) << path.toStdString();
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(listedPaths().size(), 3);
    EXPECT_EQ(listedPaths().count(eicar), 1);
    EXPECT_TRUE(agent->readyToScan());

    const QStringList expected{"Infection Found!|eicar.com infected with " + EngineFixture::eicarSignatureName(),
                               "Infection Found!|marker.txt infected with " + EngineFixture::markerSignatureName(),
                               QStringLiteral("Infection Found!|clam.exe infected with Korvane.Test.File-clam.exe")};
    QStringList shown;
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            shown.clear();
            for (const FakeNotificationService::Notification &notification : notifications->notifications())
                shown << notification.summary + '|' + notification.body;
            return std::all_of(expected.begin(), expected.end(), [&](const QString &e) { return shown.contains(e); });
        },
        10000))
        << shown.join(QStringLiteral(" ; ")).toStdString();
    EXPECT_EQ(shown.filter(QStringLiteral("Infection Found!|")), shown);
    EXPECT_FALSE(agent->infectionListWindow()->isVisible());
    notifications->invokeAction(notifications->notifications().first().id);
    EXPECT_TRUE(QTest::qWaitFor([&] { return agent->infectionListWindow()->isVisible(); }, 5000));

    // The engine's own lines go to the scan log, which watching created.
    QFile scanLog(agent->utils()->pathToScanLog());
    ASSERT_TRUE(scanLog.open(QIODevice::ReadOnly));
    const QByteArray logged = scanLog.readAll();
    EXPECT_TRUE(
        logged.contains(eicar.toUtf8() + ": " + EngineFixture::eicarSignatureName().toUtf8() + ".UNOFFICIAL FOUND\n"));
    EXPECT_TRUE(logged.contains(clean.toUtf8() + ": OK\n"));
}

TEST_F(EndToEndTest, FileWrittenSlowlyIsScannedOnceItIsComplete)
{
    const QString slow = home.filePath("Watched/slow.bin");
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

TEST_F(EndToEndTest, RestartingTheWatchLosesNoFileThatIsAlreadyWaiting)
{
    // The dispatcher holds still so that the file is surely waiting when the watch restarts.
    agent->dispatcher()->dispatchTimer()->stop();
    const QString early = write("early.com");
    ASSERT_TRUE(QTest::qWaitFor([&] { return agent->dispatcher()->waitingList().contains(early); }, 15000));
    agent->restartWatching(nullptr);
    agent->events()->flushEventStreamSync();
    agent->dispatcher()->dispatchTimer()->start();
    const QString late = write("late.com");
    ASSERT_TRUE(waitUntilListed(early));
    ASSERT_TRUE(waitUntilListed(late));
}

TEST_F(EndToEndTest, InfectedFileInAnExcludedFolderIsNeitherScannedNorListedWhileOneBesideItIs)
{
    const QVariantMap privateFolder{{QStringLiteral("excludePattern"), QStringLiteral("/Private/")},
                                    {QStringLiteral("excludeEnabled"), true}};
    home.writeDomain(companionDomain,
                     {{QStringLiteral("VardenFolderArray"), QVariantList{folder(QStringLiteral("~/Watched"))}},
                      {QStringLiteral("ExcludePatterns"), QVariantList{privateFolder}}});
    const QString hidden = write("Private/eicar.com");
    const QString beside = write("eicar.com");

    ASSERT_TRUE(waitUntilListed(beside));
    ASSERT_TRUE(QTest::qWaitFor([&] { return log.anyContains(QStringLiteral("left out of this scan: ")); }, 30000));
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(listedPaths(), QStringList{beside});

    QFile scanLog(agent->utils()->pathToScanLog());
    ASSERT_TRUE(scanLog.open(QIODevice::ReadOnly));
    const QByteArray logged = scanLog.readAll();
    EXPECT_TRUE(logged.contains(beside.toUtf8() + ": "));
    EXPECT_FALSE(logged.contains(hidden.toUtf8())) << logged.toStdString();
}

TEST_F(EndToEndTest, AFolderUnpackedAtOnceIsNotifiedOncePerInfectedFile)
{
    // Unpacked beside the watched folder and moved in whole, as an archive tool does.
    const int count = 6;
    for (int i = 0; i < count; ++i)
        home.writeFile(QStringLiteral("unpacked/inner/sample-%1.com").arg(i).toUtf8(), EngineFixture::eicarContents());
    ASSERT_TRUE(QDir().rename(home.filePath("unpacked"), home.filePath("Watched/unpacked")));

    const QString last = home.filePath(QStringLiteral("Watched/unpacked/inner/sample-%1.com").arg(count - 1));
    ASSERT_TRUE(waitUntilListed(last));
    ASSERT_TRUE(waitUntilIdle());
    const auto shown = [&](const QString &name) {
        const QString body = name + " infected with " + EngineFixture::eicarSignatureName();
        int times = 0;
        for (const FakeNotificationService::Notification &notification : notifications->notifications())
            times += notification.body == body ? 1 : 0;
        return times;
    };
    // Notifications leave in order, so once a later one is in, so is every earlier one.
    write("after.com");
    ASSERT_TRUE(QTest::qWaitFor([&] { return shown("after.com") == 1; }, 30000));
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(shown(QStringLiteral("sample-%1.com").arg(i)), 1) << i;
}

TEST_F(EndToEndTest, SavedSearchPlacedInAWatchedFolderHasTheFilesItFindsScanned)
{
    // The search looks outside the watched folder, so only the search can bring these files to a scan.
    const QString found = home.writeFile("Elsewhere/found.com", EngineFixture::eicarContents());
    const QString ignored = home.writeFile("Elsewhere/ignored.txt", EngineFixture::eicarContents());
    const QVariantMap search{
        {QStringLiteral("RawQueryDict"),
         QVariantMap{{QStringLiteral("RawQuery"), QStringLiteral(R"((kMDItemFSName == "*.com"c) && (true))")},
                     {QStringLiteral("SearchScopes"), QVariantList{home.filePath("Elsewhere")}}}}};
    write("Infected.savedSearch", PropertyList::toXml(search));

    ASSERT_TRUE(waitUntilListed(found));
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_FALSE(listedPaths().contains(ignored));
}

TEST_F(EndToEndTest, AHostileSavedSearchLeavesTheGuardScanningWhatComesAfterIt)
{
    const auto searchFor = [](const QString &query) {
        return PropertyList::toXml(QVariantMap{
            {QStringLiteral("RawQueryDict"),
             QVariantMap{{QStringLiteral("RawQuery"), query}, {QStringLiteral("SearchScopes"), QVariantList{"~"}}}}});
    };
    const struct
    {
        const char *name;
        std::function<bool(const QString &)> make;
    } rows[] = {
        {"a query nested 100,000 deep",
         [&](const QString &path) {
             const QString query = QString(100000, '(') + R"(kMDItemFSName == "a")" + QString(100000, ')');
             QFile file(path);
             return file.open(QIODevice::WriteOnly) && file.write(searchFor(query)) > 0;
         }},
        {"a FIFO", [](const QString &path) { return ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0; }},
        {"a link to an endless device", [](const QString &path) { return QFile::link("/dev/zero", path); }},
    };
    int round = 0;
    for (const auto &row : rows) {
        const QString hostile = home.filePath(QStringLiteral("Watched/%1-x.savedSearch").arg(round));
        ASSERT_TRUE(row.make(hostile)) << row.name;
        agent->events()->flushEventStreamSync();
        ASSERT_TRUE(QTest::qWaitFor(
            [&] {
                return !agent->dispatcher()->waitingList().contains(hostile)
                       && !agent->dispatcher()->readyList().contains(hostile);
            },
            10000))
            << row.name;
        const QString after = write(QStringLiteral("after-%1.com").arg(round++));
        EXPECT_TRUE(waitUntilListed(after)) << row.name;
        // Let go of a reader stuck on the FIFO, so that a failure here does not hang the suite.
        const int fd = ::open(QFile::encodeName(hostile).constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0)
            ::close(fd);
    }
}

// Settings a user may well type, or find in a hand-edited file, that must
// never leave a watched folder unscanned.
class CarelessSettingsTest : public RealEngineAgentFixture
{
protected:
    void SetUp() override { launchWatching(); }

    void prefer(const QVariantMap &values) const
    {
        QVariantMap all = values;
        all.insert(QStringLiteral("VardenFolderArray"), QVariantList{folder(QStringLiteral("~/Watched"))});
        home.writeDomain(companionDomain, all);
    }
};

TEST_F(CarelessSettingsTest, AnInfectedFileInTheWatchedFolderIsListedWhateverTheSettingsSay)
{
    const auto exclusion = [](const QString &pattern, bool regEx) {
        return QVariantList{QVariantMap{{QStringLiteral("excludePattern"), pattern},
                                        {QStringLiteral("excludeEnabled"), true},
                                        {QStringLiteral("excludeRegEx"), regEx}}};
    };
    // A word of the home folder's name, as "bar" is in /home/crowbar.
    const QString homeWord = QFileInfo(home.path()).fileName();
    struct Row
    {
        const char *name;
        QVariantMap settings;
    } rows[] = {
        {"a literal exclusion that the home folder's name holds",
         {{QStringLiteral("ExcludePatterns"), exclusion(homeWord, false)}}},
        {"a regular expression that matches the whole home",
         {{QStringLiteral("ExcludePatterns"), exclusion(".*" + homeWord + ".*", true)}}},
        {"the quarantine folder above the watched folder",
         {{QStringLiteral("QuarantineFolder"), QStringLiteral("~")}, {QStringLiteral("QuarantineInfected"), true}}},
        {"the watched folder as quarantine folder, quarantining off",
         {{QStringLiteral("QuarantineFolder"), QStringLiteral("~/Watched")}}},
        {"a scanner argument the engine does not know",
         {{QStringLiteral("AdditionalCmdLineArgs"), QStringLiteral("--bogus")}}},
    };
    int n = 0;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        prefer(row.settings);
        const QString file = write(QStringLiteral("careless-%1.com").arg(++n));
        EXPECT_TRUE(waitUntilListed(file));
        ASSERT_TRUE(waitUntilIdle());
    }
}

} // namespace
