#include "RecordingUtilsDelegate.h"
#include "Tarnlib/Tarnlib/QXEngineChecker.h"
#include "Tarnlib/Tarnlib/QXScanner.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/ScriptedPrefix.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTest>
#include <csignal>
#include <gtest/gtest.h>

namespace {

const QByteArray versionLine = "echo 'ClamAV 1.4.6/27400/Sun Nov 22 09:00:00 2026'\n";

class QXUtilsCoordinatorTest : public ::testing::Test
{
protected:
    // Set up and checking its engine, as at launch.
    std::unique_ptr<QXUtils> checking(const QList<QXUtils::EngineCandidate> &candidates)
    {
        auto utils = std::make_unique<QXUtils>(&delegate, candidates);
        utils->setup();
        utils->checkEngine();
        return utils;
    }

    bool waitForOne(const QString &call)
    {
        return QTest::qWaitFor([&] { return delegate.count(call) == 1; }, 10000);
    }

    // 3000 small files in files, every fiftieth infected; the infected ones go to infected.
    static QStringList writeLargeBatch(ScriptedPrefix &files, QStringList &infected)
    {
        QStringList batch;
        for (int i = 0; i < 3000; ++i) {
            const bool bad = i % 50 == 10;
            batch << files.writeFile(QStringLiteral("f/%1.com").arg(i, 4, 10, QLatin1Char('0')),
                                     bad ? EngineFixture::eicarContents() : QByteArray("harmless\n"));
            if (bad)
                infected << batch.last();
        }
        return batch;
    }

    // Once the batch has ended: the reported paths, sorted, and the one end report.
    void expectEachInfectionOnceAndOneEnd(const QStringList &infected)
    {
        ASSERT_TRUE(
            QTest::qWaitFor([&] { return delegate.calls.filter("scanFinishedWithStatus:").size() == 1; }, 60000));
        QStringList reported;
        for (const auto &infection : std::as_const(delegate.infections))
            reported << infection.second;
        reported.sort();
        EXPECT_EQ(reported, infected);
        EXPECT_EQ(delegate.calls.filter("scanFinishedWithStatus:"), QStringList{"scanFinishedWithStatus:1"});
    }

    FreshPreferences home;
    LogCapture log;
    RecordingUtilsDelegate delegate;
};

TEST_F(QXUtilsCoordinatorTest, InfectionLineIsSplitAtItsLastColonAndLinesWithoutANameAreDropped)
{
    const QString bundled = home.writeFile("Applications/Tool.app/Contents/bin/tool", "x");
    const struct
    {
        QString line, name, path; // name empty: dropped
    } rows[] = {
        {"/Users/u/Downloads/x.zip: Eicar-Test-Signature FOUND", "Eicar-Test-Signature", "/Users/u/Downloads/x.zip"},
        {"/media/A:B/file: Korvane.Test.Marker FOUND", "Korvane.Test.Marker", "/media/A:B/file"},
        // What is inside an application bundle is reported as the bundle.
        {bundled + ": Korvane.Test.Eicar FOUND", "Korvane.Test.Eicar", home.filePath("Applications/Tool.app")},
        {"no colon here FOUND", {}, {}},
        {"/a/b: FOUND", {}, {}},
        {"/a/b:", {}, {}},
    };
    QXUtils utils(&delegate, {});
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line.toStdString());
        delegate.infections.clear();
        utils.infectionFound(row.line);
        QList<QPair<QString, QString>> expected;
        if (!row.name.isEmpty())
            expected.append({row.name, row.path});
        EXPECT_EQ(delegate.infections, expected);
    }
}

TEST_F(QXUtilsCoordinatorTest, ReportsADelegateDoesNotTakeAreNotSentAndAStopBetweenRunsIsSilent)
{
    delegate.implementsOptional = false;
    QXUtils utils(&delegate, {});
    utils.setup();
    utils.stop();
    utils.appendToConsole(QStringLiteral("text"));
    utils.needToUpdateDB();
    utils.clamdStarted();
    EXPECT_TRUE(delegate.calls.isEmpty());
}

TEST_F(QXUtilsCoordinatorTest, WalkMovesToTheNextCandidateAndStopsWhereTheEngineIs)
{
    const struct
    {
        const char *name;
        QByteArray script; // the second candidate's clamscan; the first and third have none
        QStringList calls; // "engineFound:" stands for the version line relayed
    } rows[] = {
        // No daemon answers on that prefix, and it has none to start.
        {"an engine", versionLine, {"engineFound:", "clamdFailedToStart"}},
        {"an engine silent on its first call",
         "if [ -e \"$0.seen\" ]; then " + versionLine.trimmed() + "; else touch \"$0.seen\"; fi\n",
         {"engineFound:", "clamdFailedToStart"}},
        {"an engine without definitions", "echo 'ClamAV 1.4.6'\n", {"needToUpdateDB"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        delegate.calls.clear();
        ScriptedPrefix empty, engine, later;
        engine.writeScript("bin/clamscan", row.script);
        auto utils = checking({{empty.path(), empty.filePath("log")},
                               {engine.path(), engine.filePath("log")},
                               {later.path(), later.filePath("log")}});
        ASSERT_TRUE(waitForOne(row.calls.last())) << qPrintable(delegate.calls.join('|'));
        QStringList calls = delegate.calls;
        if (calls.first().endsWith(" - ClamAV 1.4.6/27400/Sun Nov 22 09:00:00 2026"))
            calls.first() = "engineFound:";
        EXPECT_EQ(calls, row.calls);
        EXPECT_EQ(utils->enginePath(), engine.path());
        EXPECT_EQ(utils->updateLogPath(), engine.filePath("log"));
    }
}

TEST_F(QXUtilsCoordinatorTest, NoEngineAnywhereGivesExactlyOneNotFoundAfterTheWholeWalk)
{
    ScriptedPrefix a, b, c;
    auto utils = checking({{a.path(), {}}, {b.path(), {}}, {c.path(), {}}});
    ASSERT_TRUE(waitForOne("engineNotFound"));
    QTest::qWait(500);
    EXPECT_EQ(delegate.calls, QStringList{"engineNotFound"});
    EXPECT_TRUE(log.contains(QStringLiteral("engine not found")));
    EXPECT_TRUE(utils->enginePath().isEmpty());
}

TEST_F(QXUtilsCoordinatorTest, AnEnginePrefixTheCompanionSetsAfterALaunchIsFoundAtTheNextLaunch)
{
    ScriptedPrefix missing, engine;
    engine.writeScript("bin/clamscan", versionLine);
    const QList<QXUtils::EngineCandidate> fixed{{missing.path(), missing.filePath("log")}};
    {
        auto first = checking(fixed);
        ASSERT_TRUE(waitForOne("engineNotFound"));
    }
    home.writeDomain(QStringLiteral("org.korvane.Korvane"), {{QStringLiteral("PathToClamav"), engine.path()}});
    delegate.calls.clear();

    auto second = checking(fixed);
    ASSERT_TRUE(waitForOne("clamdFailedToStart"));
    EXPECT_EQ(second->enginePath(), engine.path());
    EXPECT_EQ(second->updateLogPath(), QStringLiteral("/tmp/freshclam.log"));
    EXPECT_EQ(delegate.count("engineNotFound"), 0);
    // The launch still records the pair it started with in the agent's own domain.
    EXPECT_EQ(home.readDomain(QStringLiteral("org.korvane.KorvaneVarden")).value(QStringLiteral("PathToClamav")),
              QVariant(missing.path()));
}

TEST_F(QXUtilsCoordinatorTest, ADaemonThatDiesMidScanIsStartedAgainAndTheBatchIsScannedWhole)
{
    // A daemon of its own: this test kills it, and the fixture stops the new one.
    EngineFixture engine;
    ASSERT_TRUE(engine.isReady()) << qPrintable(engine.errorString());
    ScriptedPrefix files;
    QStringList infected;
    const QStringList batch = writeLargeBatch(files, infected);
    auto utils = checking({{engine.enginePath(), engine.enginePath() + "/share/clamav/freshclam.log"}});
    ASSERT_TRUE(waitForOne("clamdAlreadyRunning"));
    const qint64 firstDaemon = engine.daemonPid();
    delegate.onInfection = [&] {
        if (delegate.infections.size() == 1)
            ::kill(pid_t(firstDaemon), SIGKILL);
    };

    utils->scanFiles(batch);
    expectEachInfectionOnceAndOneEnd(infected);
    QFile pidFile(engine.pidFilePath());
    ASSERT_TRUE(pidFile.open(QIODevice::ReadOnly));
    const qint64 secondDaemon = pidFile.readAll().trimmed().toLongLong();
    EXPECT_NE(secondDaemon, firstDaemon);
    EXPECT_EQ(delegate.count("scanStarted"), 1);
    EXPECT_TRUE(log.contains(QStringLiteral("the scan daemon stopped answering during a scan: starting it again")))
        << qPrintable(log.lines().join('|'));
}

// The pid the prefix's pid file names now, or 0.
qint64 daemonInPidFile(const EngineFixture &engine)
{
    QFile pidFile(engine.pidFilePath());
    return pidFile.open(QIODevice::ReadOnly) ? pidFile.readAll().trimmed().toLongLong() : 0;
}

// Alive and not a zombie left to its parent.
bool processRuns(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = stat.readAll();
    return line.mid(line.lastIndexOf(')') + 2, 1) != "Z";
}

// A daemon of the agent's user started directly, and a shared one the agent
// starts through the prefix's helper when it runs as root: either way the
// hung daemon is ended and a new one scans the batch.
TEST_F(QXUtilsCoordinatorTest, ADaemonThatHangsIsEndedAndStartedAgainAndEveryLaterBatchScans)
{
    for (const EngineFixture::Layout layout : {EngineFixture::Layout::HandMade, EngineFixture::Layout::Preferred}) {
        SCOPED_TRACE(int(layout));
        delegate.calls.clear();
        delegate.infections.clear();
        EngineFixture engine(layout);
        ASSERT_TRUE(engine.isReady()) << qPrintable(engine.errorString());
        ScriptedPrefix files;
        QStringList infected;
        QStringList batch;
        for (int i = 0; i < 20; ++i) {
            batch << files.writeFile(QStringLiteral("h/%1.com").arg(i, 2, 10, QLatin1Char('0')),
                                     i % 4 == 1 ? EngineFixture::eicarContents() : QByteArray("harmless\n"));
            if (i % 4 == 1)
                infected << batch.last();
        }
        auto utils = checking({{engine.enginePath(), engine.enginePath() + "/share/clamav/freshclam.log"}});
        // The hand-made prefix's definitions carry no version, so its check
        // ends asking for an update; the daemon runs all the same.
        ASSERT_TRUE(QTest::qWaitFor(
            [&] { return delegate.count("clamdAlreadyRunning") + delegate.count("needToUpdateDB") == 1; }, 10000))
            << qPrintable(delegate.calls.join('|'));
        utils->theScanner()->setSilenceLimit(std::chrono::seconds(2));
        utils->theChecker()->setClamdReplyTimeLimit(std::chrono::seconds(1));
        const qint64 hung = engine.daemonPid();
        ASSERT_EQ(::kill(pid_t(hung), SIGSTOP), 0);

        utils->scanFiles(batch);
        expectEachInfectionOnceAndOneEnd(infected);
        const qint64 restarted = daemonInPidFile(engine);
        EXPECT_NE(restarted, hung);
        EXPECT_TRUE(processRuns(restarted));
        EXPECT_FALSE(processRuns(hung));
        EXPECT_TRUE(utils->theChecker()->clamdResponding());

        delegate.calls.clear();
        delegate.infections.clear();
        utils->scanFiles(QStringList{infected.first(), batch.first()});
        ASSERT_TRUE(QTest::qWaitFor([&] { return delegate.count("scanFinishedWithStatus:1") == 1; }, 30000))
            << qPrintable(delegate.calls.join('|'));
        ASSERT_EQ(delegate.infections.size(), 1);
        EXPECT_EQ(delegate.infections.first().second, infected.first());
        EXPECT_EQ(daemonInPidFile(engine), restarted);
    }
}

// A daemon client that this process runs, or 0 when none runs now.
qint64 runningClient()
{
    const QByteArray parent = QByteArray::number(QCoreApplication::applicationPid());
    for (const QString &entry : QDir("/proc").entryList(QDir::Dirs)) {
        QFile stat("/proc/" + entry + "/stat");
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        // "pid (comm) state ppid ..."
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (line.contains("(clamdscan)") && fields.size() > 1 && fields.at(0) != "Z" && fields.at(1) == parent)
            return entry.toLongLong();
    }
    return 0;
}

TEST_F(QXUtilsCoordinatorTest, AClientKilledMidBatchLeavesItsFilesToASecondRunAndEachInfectionIsReportedOnce)
{
    EngineFixture &engine = EngineFixture::shared();
    ASSERT_TRUE(engine.isReady()) << qPrintable(engine.errorString());
    ScriptedPrefix files;
    QStringList infected;
    const QStringList batch = writeLargeBatch(files, infected);
    auto utils = checking({{engine.enginePath(), engine.enginePath() + "/share/clamav/freshclam.log"}});
    ASSERT_TRUE(waitForOne("clamdAlreadyRunning"));
    qint64 killed = 0;
    delegate.onInfection = [&] {
        if (killed == 0 && (killed = runningClient()) > 0)
            ::kill(pid_t(killed), SIGKILL);
    };

    utils->scanFiles(batch);
    expectEachInfectionOnceAndOneEnd(infected);
    ASSERT_GT(killed, 0);
    EXPECT_EQ(delegate.count("scanStarted"), 1);
    EXPECT_TRUE(log.anyContains(QStringLiteral("files of the batch were left unscanned: scanning them again")))
        << qPrintable(log.lines().join('|'));
    // The daemon itself was never lost.
    EXPECT_FALSE(log.contains(QStringLiteral("the scan daemon stopped answering during a scan: starting it again")));
}

} // namespace
