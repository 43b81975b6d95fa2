#include "RecordingUtilsDelegate.h"
#include "tests/support/ScriptedPrefix.h"
#include "Tarnlib/Tarnlib/QXEngineChecker.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTest>
#include <gtest/gtest.h>

namespace {

const QByteArray versionLine = "echo 'ClamAV 1.4.6/27400/Sun Nov 22 09:00:00 2026'\n";

class QXUtilsCoordinatorTest : public ::testing::Test
{
protected:
    std::unique_ptr<QXUtils> make(const QList<QXUtils::EngineCandidate> &candidates)
    {
        auto utils = std::make_unique<QXUtils>(&delegate, candidates);
        return utils;
    }

    bool waitFor(const std::function<bool()> &condition, int ms = 10000)
    {
        return QTest::qWaitFor(condition, ms);
    }

    FreshPreferences home;
    LogCapture log;
    RecordingUtilsDelegate delegate;
};

TEST_F(QXUtilsCoordinatorTest, InfectionLineIsSplitAtItsLastColon)
{
    auto utils = make({});
    utils->infectionFound(QStringLiteral("/Users/u/Downloads/x.zip: Eicar-Test-Signature FOUND"));
    utils->infectionFound(QStringLiteral("/media/A:B/file: Korvane.Test.Marker FOUND"));
    ASSERT_EQ(delegate.infections.size(), 2);
    EXPECT_EQ(delegate.infections.at(0), qMakePair(QStringLiteral("Eicar-Test-Signature"),
                                                   QStringLiteral("/Users/u/Downloads/x.zip")));
    EXPECT_EQ(delegate.infections.at(1), qMakePair(QStringLiteral("Korvane.Test.Marker"), QStringLiteral("/media/A:B/file")));
}

TEST_F(QXUtilsCoordinatorTest, LinesWithoutAColonOrANameAreDropped)
{
    auto utils = make({});
    utils->infectionFound(QStringLiteral("no colon here FOUND"));
    utils->infectionFound(QStringLiteral("/a/b: FOUND"));
    utils->infectionFound(QStringLiteral("/a/b:"));
    EXPECT_TRUE(delegate.infections.isEmpty());
}

TEST_F(QXUtilsCoordinatorTest, InfectionInsideAnApplicationBundleIsReportedAsTheBundle)
{
    const QString bundle = home.filePath("Applications/Tool.app");
    const QString file = home.writeFile("Applications/Tool.app/Contents/bin/tool", "x");
    const QString plain = home.writeFile("Documents/report.pdf", "x");
    auto utils = make({});
    utils->infectionFound(file + QStringLiteral(": Korvane.Test.Eicar FOUND"));
    utils->infectionFound(plain + QStringLiteral(": Korvane.Test.Eicar FOUND"));
    ASSERT_EQ(delegate.infections.size(), 2);
    EXPECT_EQ(delegate.infections.at(0).second, bundle);
    EXPECT_EQ(delegate.infections.at(1).second, plain);
}

TEST_F(QXUtilsCoordinatorTest, UpdateEndIsRelayedWhileStillUpdatingAndClearedAfter)
{
    auto utils = make({});
    QXUtils *u = utils.get();
    delegate.onUpdateFinished = [&] { delegate.updatingSeenAtUpdateEnd = u->updating(); };
    u->updateStarted();
    EXPECT_TRUE(u->updating());
    u->updateFinishedWithStatus(1);
    EXPECT_TRUE(delegate.updatingSeenAtUpdateEnd);
    EXPECT_FALSE(u->updating());
}

TEST_F(QXUtilsCoordinatorTest, ProgressIsCountedFromEachScanStart)
{
    auto utils = make({});
    utils->scanStarted();
    utils->updateProgressBar();
    utils->updateProgressBar();
    utils->scanStarted();
    utils->updateProgressBar();
    EXPECT_EQ(delegate.calls, (QStringList{"scanStarted", "progress:1", "progress:2", "scanStarted", "progress:1"}));
    EXPECT_TRUE(utils->scanning());
}

TEST_F(QXUtilsCoordinatorTest, OptionalReportsReachOnlyADelegateThatHasThem)
{
    delegate.implementsOptional = false;
    auto utils = make({});
    utils->appendToConsole(QStringLiteral("text"));
    utils->needToUpdateDB();
    utils->clamdStarted();
    utils->clamdFailedToStart();
    EXPECT_TRUE(delegate.calls.isEmpty());
}

TEST_F(QXUtilsCoordinatorTest, StopBetweenRunsDoesNothing)
{
    auto utils = make({});
    utils->setup();
    utils->stop();
    EXPECT_FALSE(utils->paused());
    EXPECT_TRUE(delegate.calls.isEmpty());
}

TEST_F(QXUtilsCoordinatorTest, WalkMovesToTheNextCandidateAndStopsWhereTheEngineIs)
{
    ScriptedPrefix empty, engine, later;
    engine.writeScript("bin/clamscan", versionLine);
    auto utils = make({{empty.path(), empty.filePath("log")}, {engine.path(), engine.filePath("log")},
                       {later.path(), later.filePath("log")}});
    utils->setup();
    utils->checkEngine();

    ASSERT_TRUE(waitFor([&] { return delegate.count("clamdFailedToStart") == 1; }));
    EXPECT_EQ(utils->enginePath(), engine.path());
    EXPECT_EQ(utils->updateLogPath(), engine.filePath("log"));
    ASSERT_GE(delegate.calls.size(), 2);
    EXPECT_TRUE(delegate.calls.at(0).startsWith("engineFound:"));
    EXPECT_TRUE(delegate.calls.at(0).endsWith(" - ClamAV 1.4.6/27400/Sun Nov 22 09:00:00 2026"));
    // No daemon answers on that prefix, and it has none to start.
    EXPECT_TRUE(log.contains(QStringLiteral("starting clamd...")));
    EXPECT_EQ(delegate.count("engineNotFound"), 0);
}

TEST_F(QXUtilsCoordinatorTest, NoEngineAnywhereGivesExactlyOneNotFoundAfterTheWholeWalk)
{
    ScriptedPrefix a, b, c;
    auto utils = make({{a.path(), {}}, {b.path(), {}}, {c.path(), {}}});
    utils->setup();
    utils->checkEngine();
    ASSERT_TRUE(waitFor([&] { return delegate.count("engineNotFound") == 1; }));
    QTest::qWait(500);
    EXPECT_EQ(delegate.calls, QStringList{"engineNotFound"});
    EXPECT_TRUE(log.contains(QStringLiteral("engine not found")));
    EXPECT_TRUE(utils->enginePath().isEmpty());
}

TEST_F(QXUtilsCoordinatorTest, EngineThatDoesNotAnswerYetIsAskedAgain)
{
    ScriptedPrefix slow;
    // Silent on the first call, a version line on the second.
    slow.writeScript("bin/clamscan", "if [ -e \"$0.seen\" ]; then " + versionLine.trimmed() + "; else touch \"$0.seen\"; fi\n");
    auto utils = make({{slow.path(), {}}});
    utils->setup();
    utils->checkEngine();
    ASSERT_TRUE(waitFor([&] { return delegate.count("clamdFailedToStart") == 1; }));
    EXPECT_TRUE(delegate.calls.first().startsWith("engineFound:"));
    EXPECT_EQ(utils->enginePath(), slow.path());
}

TEST_F(QXUtilsCoordinatorTest, MissingDefinitionsAreRelayed)
{
    ScriptedPrefix bare;
    bare.writeScript("bin/clamscan", "echo 'ClamAV 1.4.6'\n");
    auto utils = make({{bare.path(), {}}});
    utils->setup();
    utils->checkEngine();
    ASSERT_TRUE(waitFor([&] { return delegate.count("needToUpdateDB") == 1; }));
    EXPECT_EQ(delegate.calls, QStringList{"needToUpdateDB"});
}

class QXUtilsWithRealEngineTest : public QXUtilsCoordinatorTest
{
protected:
    void SetUp() override
    {
        engine = &EngineFixture::shared();
        ASSERT_TRUE(engine->isReady()) << engine->errorString().toStdString();
    }
    EngineFixture *engine = nullptr;
};

TEST_F(QXUtilsWithRealEngineTest, RunningDaemonIsFoundAndABatchComesBackAsInfections)
{
    auto utils = make({{engine->enginePath(), engine->enginePath() + "/share/clamav/freshclam.log"}});
    utils->setup();
    utils->checkEngine();
    ASSERT_TRUE(waitFor([&] { return delegate.count("clamdAlreadyRunning") == 1; }));
    EXPECT_TRUE(utils->engineSupportsFileListFlag());
    EXPECT_TRUE(utils->updaterNeedsExit1FreshclamFlag());
    EXPECT_EQ(utils->engineShortVersionString(), QStringLiteral("1.4.6"));

    const QString eicar = home.writeFile("Downloads/eicar.com", EngineFixture::eicarContents());
    const QString marker = home.writeFile("Downloads/has: colon.txt", EngineFixture::markerContents());
    const QString clean = home.writeFile("Downloads/clean.txt", "nothing to see");
    delegate.calls.clear();
    utils->setScanning(true);
    utils->scanFiles({eicar, marker, clean});

    ASSERT_TRUE(waitFor([&] { return delegate.count("scanFinishedWithStatus:1") == 1; }, 30000));
    QMap<QString, QString> found;
    for (const auto &infection : delegate.infections)
        found.insert(infection.second, infection.first);
    EXPECT_EQ(found.size(), 2);
    EXPECT_EQ(found.value(eicar), EngineFixture::eicarSignatureName());
    EXPECT_EQ(found.value(marker), EngineFixture::markerSignatureName());
    EXPECT_EQ(delegate.calls.first(), QStringLiteral("scanStarted"));
}

} // namespace
