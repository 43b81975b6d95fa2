#include "Tarnlib/Tarnlib/QXScanner.h"

#include "FakeScannerDelegate.h"
#include "ProcessState.h"
#include "RecordingUtilsDelegate.h"
#include "ScriptEngine.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/Localization.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RemoteDaemon.h"
#include "tests/support/ScriptedPrefix.h"
#include "tests/support/TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

constexpr int waitLimit = 60000;

// Lets a test hand the output handler chunks cut where it wants them.
class ChunkFedScanner : public QXScanner
{
public:
    using QXScanner::QXScanner;
    void feed(const QByteArray &chunk) { notifiedForStdOutput(chunk); }
};

QStringList logLines(const QString &path)
{
    return QString::fromUtf8(TemporaryHome::readFile(path)).split('\n');
}

QString infection(const QString &path, const QString &name)
{
    return "infectionFound:" + path + ": " + name + " FOUND";
}

const QString eicarName = "Korvane.Test.Eicar", markerName = "Korvane.Test.Marker";
const QRegularExpression dateLine("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d [+-]\\d{4}$");

} // namespace

class QXScannerTest : public ::testing::Test
{
protected:
    QString writeSample(const QString &relative, const QByteArray &contents)
    {
        return files.writeFile(relative, contents);
    }
    QString infected(const QString &relative) { return writeSample(relative, EngineFixture::eicarContents()); }
    QString clean(const QString &relative) { return writeSample(relative, "nothing to see here\n"); }

    // The log must exist before a run: the scanner only appends to it.
    void useScanLog() { delegate.scanLog = writeSample("scan.log", {}); }
    bool useRealEngine()
    {
        EngineFixture &engine = EngineFixture::shared();
        EXPECT_TRUE(engine.isReady()) << qPrintable(engine.errorString());
        delegate.engine = engine.enginePath();
        return engine.isReady();
    }
    bool useScript(const ScriptEngine &engine)
    {
        delegate.engine = engine.enginePath();
        return engine.isValid();
    }

    ChunkFedScanner *startScanner()
    {
        scanner = std::make_unique<ChunkFedScanner>(&delegate);
        scanner->start();
        return scanner.get();
    }
    void scan(const QStringList &paths)
    {
        if (!scanner)
            startScanner();
        scanner->perform([s = scanner.get(), paths] { s->runScanOnFiles(paths); });
    }
    // The end report, and then the rest of the run (the log's last newline).
    bool waitForEnd()
    {
        if (!QTest::qWaitFor([&] { return delegate.ended(); }, waitLimit))
            return false;
        // Once this request runs, the run before it has returned; shared, so
        // that a request still queued after a failed wait finds it alive.
        auto reached = std::make_shared<std::atomic<bool>>(false);
        scanner->perform([reached] { *reached = true; });
        return QTest::qWaitFor([&] { return reached->load(); }, waitLimit);
    }

    // Only for its file helpers: the samples to scan live here.
    ScriptedPrefix files;
    FakeScannerDelegate delegate;
    std::unique_ptr<ChunkFedScanner> scanner;
};

TEST_F(QXScannerTest, DaemonReportsTheInfectedFilesOfAListWithTheSavedSearchesFilesAndLogsEveryResult)
{
    ASSERT_TRUE(useRealEngine());
    useScanLog();
    LogCapture systemLog;
    const QString eicar = infected("eicar.com");
    const QString colon = infected("volume: B/file: x.com");
    const QString marker = writeSample("Grüße.txt", EngineFixture::markerContents());
    const QString harmless = clean("clean.txt");
    const QString search = clean("Downloads.savedSearch");
    const QString gone = files.filePath("Downloads/gone.com");
    delegate.savedSearches.insert(search, {marker, gone});
    delegate.cutSearches << search;
    scan({eicar, harmless, search, colon});

    ASSERT_TRUE(waitForEnd());
    const QStringList events = delegate.events();
    EXPECT_EQ(events.first(), "scanStarted");
    EXPECT_EQ(events.last(), "scanFinishedWithStatus:1");
    EXPECT_THAT(
        delegate.eventsStartingWith("infectionFound:"),
        UnorderedElementsAre(infection(eicar, eicarName), infection(colon, eicarName), infection(marker, markerName)));
    EXPECT_EQ(events.size(), 5);
    EXPECT_FALSE(delegate.reportsOffMainThread);
    EXPECT_FALSE(delegate.questionsOnMainThread);
    // What the engine says on its error output goes to the system log only.
    EXPECT_TRUE(systemLog.anyContains("error:") && systemLog.anyContains(gone))
        << qPrintable(systemLog.lines().join('|'));

    const QString list = scanner->scanListTempFilePath();
    EXPECT_TRUE(QRegularExpression("^" + QRegularExpression::escape(QDir::tempPath())
                                   + "/Korvane-[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$")
                    .match(list)
                    .hasMatch())
        << qPrintable(list);
    EXPECT_FALSE(QFile::exists(list));

    const QStringList log = logLines(delegate.scanLog);
    ASSERT_EQ(log.size(), 9) << qPrintable(log.join('|'));
    EXPECT_TRUE(dateLine.match(log.at(0)).hasMatch()) << qPrintable(log.at(0));
    EXPECT_THAT(log.mid(1, 6), UnorderedElementsAre(search + ": saved search cut at its limit, not scanned whole",
                                                    eicar + ": Korvane.Test.Eicar.UNOFFICIAL FOUND",
                                                    colon + ": Korvane.Test.Eicar.UNOFFICIAL FOUND",
                                                    marker + ": Korvane.Test.Marker.UNOFFICIAL FOUND",
                                                    harmless + ": OK", search + ": OK"));
    // Every entry ends in a newline, and the run adds one more.
    EXPECT_THAT(log.mid(7), ElementsAre("", ""));
}

TEST_F(QXScannerTest, CleanFilesGivenAsArgumentsEndWithStatusZeroAndWriteNoListNorLog)
{
    ASSERT_TRUE(useRealEngine());
    delegate.fileList = false;
    delegate.scanLog = files.filePath("Logs/KorvaneVarden-scan.log");
    scan({clean("a.txt"), clean("with space/b.txt")});

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.events(), ElementsAre("scanStarted", "scanFinishedWithStatus:0"));
    EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath()));
    EXPECT_FALSE(QFile::exists(delegate.scanLog));
}

// Settings of the stand-alone scanner (exclusions, quarantine) leaked into the daemon client's command line.
TEST_F(QXScannerTest, DaemonClientGetsNoSummaryTheExtraArgumentsAndTheList)
{
    ScriptEngine engine("exit 0");
    ASSERT_TRUE(useScript(engine));
    // Settings of the stand-alone form only; the daemon client ignores them.
    delegate.exclusions = {"--exclude=\\.log$"};
    delegate.quarantine = true;
    delegate.quarantineFolder = "/q";
    delegate.additional = "--one  --two";
    delegate.savedSearches.insert("/x/Recent.savedSearch", {"/y/ä", "/y/2"});
    delegate.savedSearches.insert("/x/tiny.savedSearch", {"ab"});
    scan({"/x/one", "/x/Recent.savedSearch", "/x/tiny.savedSearch"});

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(engine.recordedArguments(),
                ElementsAre("--no-summary", "--one", "", "--two", "--file-list=" + scanner->scanListTempFilePath()));
    EXPECT_EQ(QString::fromUtf8(engine.copiedFileList()),
              "/x/one\n/x/Recent.savedSearch\n/x/tiny.savedSearch\n/y/ä\n/y/2");
    EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath()));
}

TEST_F(QXScannerTest, OutputCutAnywhereIsParsedAsWholeLines)
{
    ScriptEngine engine(ScriptEngine::waitForRelease());
    ASSERT_TRUE(useScript(engine));
    delegate.updates = true;
    useScanLog();
    ChunkFedScanner *fed = startScanner();
    scan({"/x"});
    ASSERT_TRUE(QTest::qWaitFor([&] { return engine.pid() > 0 && fed->hasChild(); }, waitLimit));

    // Fed on the worker's thread while the child runs, as the pipe would be.
    const QList<QByteArray> chunks{"/x/a: Korvane.Te",
                                   "st.Eicar.UNOFF",
                                   "ICIAL FOUND\nScann",
                                   "ing /x/b\nx\n\n",
                                   "/x/gr\xC3",
                                   "\xBC\xC3\x9F"
                                   "e: OK\nLibClamAV Warning: The virus database is older than 7 days!\n",
                                   "/x/last: Korvane.Test.Marker.UNOFFICIAL FOUND"};
    auto fedAll = std::make_shared<std::atomic<bool>>(false);
    fed->perform([fed, chunks, fedAll] {
        for (const QByteArray &chunk : chunks)
            fed->feed(chunk);
        *fedAll = true;
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return fedAll->load(); }, waitLimit));
    engine.release();

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.events(),
                ElementsAre("scanStarted", infection("/x/a", eicarName), "updateProgressWithMessage:Scanning /x/b",
                            "updateProgressBar",
                            // The daemon's client names a clean file instead.
                            QString::fromUtf8("updateProgressWithMessage:Scanning /x/gr\xC3\xBC\xC3\x9F" "e"),
                            "updateProgressBar", "appendToConsole:\n",
                            "appendToConsole:" + Localization::text("DB_OUT_OF_DATE"),
                            // The output ended without a newline: its last line still counts.
                            infection("/x/last", markerName), "updateProgressWithPercentDone:100",
                            "scanFinishedWithStatus:0"));
    EXPECT_THAT(logLines(delegate.scanLog).mid(1),
                ElementsAre("/x/a: Korvane.Test.Eicar.UNOFFICIAL FOUND", "/x/grüße: OK",
                            "LibClamAV Warning: The virus database is older than 7 days!",
                            "/x/last: Korvane.Test.Marker.UNOFFICIAL FOUND", "", ""));
}

// The name never holds ": ", so the last one before it ends the path,
// whatever the path itself holds.
TEST_F(QXScannerTest, AFoundLineGivesTheListTheWholePathAndTheName)
{
    const struct
    {
        QByteArray line;
        QString path, name;
    } rows[] = {
        {"/x/a: Korvane.Test.Eicar.UNOFFICIAL FOUND", "/x/a", eicarName},
        {"/x/v: B/f: y: Korvane.Test.Eicar.UNOFFICIAL FOUND", "/x/v: B/f: y", eicarName},
        {"/x/b.UNOFFICIAL FOUND: Korvane.Test.Eicar.UNOFFICIAL FOUND", "/x/b.UNOFFICIAL FOUND", eicarName},
        {"/x/c: Eicar FOUND: Eicar-Signature FOUND", "/x/c: Eicar FOUND", "Eicar-Signature"},
        // The daemon's extended detection information.
        {"/x/d: Eicar-Signature(44d88612fea8a8f36de82e1278abb02f:68) FOUND", "/x/d",
         "Eicar-Signature(44d88612fea8a8f36de82e1278abb02f:68)"},
    };
    ScriptEngine engine(ScriptEngine::waitForRelease());
    ASSERT_TRUE(useScript(engine));
    ChunkFedScanner *fed = startScanner();
    scan({"/x"});
    ASSERT_TRUE(QTest::qWaitFor([&] { return engine.pid() > 0 && fed->hasChild(); }, waitLimit));
    QByteArray output;
    for (const auto &row : rows)
        output += row.line + '\n';
    auto fedAll = std::make_shared<std::atomic<bool>>(false);
    fed->perform([fed, output, fedAll] {
        fed->feed(output);
        *fedAll = true;
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return fedAll->load(); }, waitLimit));
    engine.release();
    ASSERT_TRUE(waitForEnd());

    FreshPreferences home;
    RecordingUtilsDelegate listed;
    QXUtils utils(&listed, {});
    for (const QString &event : delegate.eventsStartingWith("infectionFound:"))
        utils.infectionFound(event.mid(int(qstrlen("infectionFound:"))));
    QList<QPair<QString, QString>> expected;
    for (const auto &row : rows)
        expected.append({row.name, row.path});
    EXPECT_EQ(listed.infections, expected);
}

TEST_F(QXScannerTest, MissingEngineProgramReportsACrashAndLeavesTheList)
{
    useScanLog();
    delegate.engine = files.filePath("no engine");
    const QString harmless = clean("clean.txt");
    scan({harmless});

    ASSERT_TRUE(waitForEnd());
    const QStringList events = delegate.events();
    ASSERT_EQ(events.size(), 2) << qPrintable(events.join('|'));
    EXPECT_EQ(events.at(0), "scanStarted");
    EXPECT_TRUE(
        events.at(1).startsWith("scanCrashed:launch path not accessible: " + delegate.engine + "/bin/clamdscan: "))
        << qPrintable(events.at(1));
    EXPECT_TRUE(events.at(1).contains("No such file or directory")) << qPrintable(events.at(1));

    EXPECT_EQ(TemporaryHome::readFile(scanner->scanListTempFilePath()), harmless.toUtf8());
    QFile::remove(scanner->scanListTempFilePath());
    const QString log = QString::fromUtf8(TemporaryHome::readFile(delegate.scanLog));
    EXPECT_TRUE(log.endsWith("\n\n"));
    EXPECT_TRUE(dateLine.match(log.chopped(2)).hasMatch()) << qPrintable(log);
}

TEST_F(QXScannerTest, EngineKilledFromOutsideEndsTheScanWithTheSignal)
{
    ScriptEngine engine("echo 'Scanning /x'\n" + ScriptEngine::waitForRelease());
    ASSERT_TRUE(useScript(engine));
    const QStringList batch{clean("a.txt"), clean("b.txt")};
    scan(batch);
    ASSERT_TRUE(QTest::qWaitFor([&] { return engine.pid() > 0; }, waitLimit));
    // The list was complete before the engine started.
    EXPECT_EQ(QString::fromUtf8(engine.copiedFileList()), batch.join('\n'));

    ASSERT_EQ(::kill(pid_t(engine.pid()), SIGKILL), 0);
    ASSERT_TRUE(waitForEnd());
    EXPECT_EQ(delegate.events().last(), QStringLiteral("scanFinishedWithStatus:%1").arg(SIGKILL));
    EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath()));
    EXPECT_FALSE(scanner->hasChild());
}

TEST_F(QXScannerTest, PauseSuspendsTheEngineASecondPauseResumesItAndStopEndsItEvenSuspended)
{
    ScriptEngine engine(ScriptEngine::waitForRelease());
    ASSERT_TRUE(useScript(engine));
    QXScanner *s = startScanner();
    // Between runs there is nothing to pause or stop.
    EXPECT_FALSE(s->pause());
    s->stop();
    EXPECT_FALSE(s->paused());

    scan({"/x"});
    ASSERT_TRUE(QTest::qWaitFor([&] { return engine.pid() > 0 && s->hasChild(); }, waitLimit));
    const qint64 pid = engine.pid();
    EXPECT_FALSE(s->resumeScan());
    EXPECT_TRUE(s->pause());
    EXPECT_TRUE(QTest::qWaitFor([&] { return processState(pid) == 'T'; }, waitLimit));
    EXPECT_TRUE(s->paused());
    EXPECT_FALSE(s->suspendScan());

    EXPECT_FALSE(s->pause());
    EXPECT_TRUE(QTest::qWaitFor([&] { return processState(pid) != 'T'; }, waitLimit));
    EXPECT_FALSE(s->paused());

    ASSERT_TRUE(s->pause());
    ASSERT_TRUE(QTest::qWaitFor([&] { return processState(pid) == 'T'; }, waitLimit));
    s->stop();
    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.events(),
                ElementsAre("scanStarted", QStringLiteral("scanFinishedWithStatus:%1").arg(SIGTERM)));
    EXPECT_FALSE(s->paused());
    EXPECT_FALSE(QFile::exists(s->scanListTempFilePath()));
}

TEST_F(QXScannerTest, HandMadePrefixDetectsTheSameSignaturesAndWithLoggingOffTheLogGetsOneNewlineAfterTheEnd)
{
    EngineFixture engine(EngineFixture::Layout::HandMade);
    ASSERT_TRUE(engine.isReady()) << qPrintable(engine.errorString());
    delegate.engine = engine.enginePath();
    useScanLog();
    delegate.logging = false;
    QByteArray logWhileEnding = "unread";
    delegate.onFinished = [&] { logWhileEnding = TemporaryHome::readFile(delegate.scanLog); };
    const QString eicar = infected("eicar.com");
    scan({eicar});

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.events(), ElementsAre("scanStarted", infection(eicar, eicarName), "scanFinishedWithStatus:1"));
    // The end report held the run, so the newline came after it.
    EXPECT_EQ(logWhileEnding, QByteArray());
    EXPECT_EQ(TemporaryHome::readFile(delegate.scanLog), "\n");
}

// A newline would cut the name in the engine's list and in its output.
TEST_F(QXScannerTest, DaemonClientScansNamesWithANewline)
{
    ASSERT_TRUE(useRealEngine());
    const QString split = infected("two\nlines.com");
    const QString ending = infected("ends in a newline\n");
    const QString harmless = clean("clean\nname.txt");
    const QString letters = infected("Grüße ½.com");
    scan({split, harmless, letters, ending});

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(
        delegate.eventsStartingWith("infectionFound:"),
        UnorderedElementsAre(infection(split, eicarName), infection(letters, eicarName), infection(ending, eicarName)));
    EXPECT_EQ(delegate.events().last(), "scanFinishedWithStatus:1");
}

TEST_F(QXScannerTest, ADaemonClientThatFallsSilentIsEndedAndLeavesItsWholeBatchUnscanned)
{
    ScriptEngine engine(ScriptEngine::waitForRelease());
    ASSERT_TRUE(useScript(engine));
    startScanner()->setSilenceLimit(std::chrono::milliseconds(300));
    const QStringList batch{clean("a.txt"), clean("b.txt")};
    scan(batch);

    ASSERT_TRUE(waitForEnd());
    EXPECT_EQ(delegate.events(),
              (QStringList{"scanStarted", "filesLeftUnscanned:" + batch.join('|'), "scanFinishedWithStatus:2"}));
    EXPECT_EQ(processState(engine.pid()), '\0');
    EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath()));
}

TEST_F(QXScannerTest, AnEngineThatKeepsTalkingOrIsPausedRunsPastTheSilenceLimit)
{
    ScriptEngine engine("for i in 1 2 3 4 5 6; do echo \"Scanning /x/$i\"; sleep 0.1; done\n"
                        + ScriptEngine::waitForRelease());
    ASSERT_TRUE(useScript(engine));
    delegate.updates = true;
    QXScanner *s = startScanner();
    s->setSilenceLimit(std::chrono::milliseconds(300));
    scan({"/x"});
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate.events().contains("updateProgressWithMessage:Scanning /x/6"); },
                                waitLimit));
    ASSERT_TRUE(s->pause());
    QTest::qWait(1000);
    EXPECT_EQ(processState(engine.pid()), 'T');
    engine.release();
    EXPECT_FALSE(s->pause());

    ASSERT_TRUE(waitForEnd());
    EXPECT_EQ(delegate.events().last(), "scanFinishedWithStatus:0");
}

TEST_F(QXScannerTest, ScanningServiceGetsFileContentsAndAFileOverItsStreamLimitIsNotScannedNorCalledClean)
{
    RemoteDaemon &service = RemoteDaemon::shared();
    ASSERT_TRUE(service.isReady()) << qPrintable(service.errorString());
    ASSERT_TRUE(service.start());
    delegate.engine = service.enginePath();
    useScanLog();
    LogCapture log;

    // The marker lies past the limit in the big file, so a client that sent
    // only the first part would call it clean.
    const QByteArray filler(RemoteDaemon::streamMaxLength, 'x');
    const QString over = writeSample("big/over.bin", filler + EngineFixture::markerContents());
    const QString atLimit =
        writeSample("big/at-limit.bin", filler.left(filler.size() - EngineFixture::markerContents().size())
                                            + EngineFixture::markerContents());
    const QString small = infected("small.com");
    const QString plain = clean("plain.txt");
    // A folder is scanned as its files but the big one.
    const QString alsoOver = writeSample("folder/deeper/over.bin", filler + EngineFixture::markerContents());
    const QString inside = infected("folder/inside.com");
    scan({over, atLimit, small, plain, files.filePath("folder")});
    ASSERT_TRUE(waitForEnd());

    EXPECT_EQ(delegate.eventsStartingWith("infectionFound:"),
              QStringList({infection(atLimit, markerName), infection(small, eicarName), infection(inside, eicarName)}));
    EXPECT_EQ(delegate.eventsStartingWith("scanFinishedWithStatus:"), QStringList{"scanFinishedWithStatus:2"});
    const QString notScanned = over + ": Size limit exceeded (StreamMaxLength 1048576 bytes), not scanned ERROR";
    const QStringList logged = logLines(delegate.scanLog);
    EXPECT_TRUE(logged.contains(notScanned)) << logged.join('\n').toStdString();
    EXPECT_TRUE(logged.contains(plain + ": OK"));
    EXPECT_TRUE(logged.filter(QRegularExpression("over.bin: OK")).isEmpty()) << logged.join('\n').toStdString();
    EXPECT_TRUE(logged.contains(alsoOver + ": Size limit exceeded (StreamMaxLength 1048576 bytes), not scanned ERROR"));
    EXPECT_TRUE(log.contains("not scanned, larger than the scanning service takes: " + notScanned))
        << log.lines().join('\n').toStdString();
}

namespace {

// Script lines that find the list a client was given and note the client's
// pid and list under $dir, so that a test can tell the clients apart.
const QString noteClient = "for arg; do case $arg in --file-list=*) list=${arg#--file-list=} ;; esac; done\n"
                           "cp \"$list\" \"$dir/list-$$\"\n"
                           "echo $$ >> \"$dir/clients\"\n";

QList<qint64> clientPids(const ScriptEngine &engine)
{
    QList<qint64> pids;
    QFile file(engine.enginePath() + "/clients");
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (!line.isEmpty())
                pids << line.toLongLong();
        }
    }
    return pids;
}

QStringList clientList(const ScriptEngine &engine, qint64 pid)
{
    return QString::fromUtf8(TemporaryHome::readFile(engine.enginePath() + QStringLiteral("/list-%1").arg(pid)))
        .split('\n');
}

QString shellQuoted(QString text)
{
    return "'" + text.replace("'", "'\\''") + "'";
}

} // namespace

// A commented or zero MaxThreads split a batch among more clients than the daemon serves.
TEST(QXScannerClients, TheDaemonsThreadCountComesFromItsConfigurationOrIsTheDaemonsDefault)
{
    QTemporaryDir dir;
    const struct
    {
        const char *configuration; // nullptr: no file
        int threads;
    } configurations[] = {
        {nullptr, 10},
        {"LocalSocket /x/run/clamd.sock\nMaxThreads 4\n", 4},
        // A daemon reached over the network says nothing of its threads.
        {"TCPAddr 192.0.2.7\nTCPSocket 3310\n", 10},
        {"#MaxThreads 20\n  MaxThreads   6  \nMaxThreadsX 30\n", 6},
        {"MaxThreads 0\n", 10},
        {"MaxThreads 3\nMaxThreads 5\n", 5},
    };
    for (const auto &entry : configurations) {
        SCOPED_TRACE(entry.configuration ? entry.configuration : "no file");
        const QString path = dir.filePath("clamd.conf");
        QFile::remove(path);
        if (entry.configuration) {
            QFile file(path);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(entry.configuration);
        }
        EXPECT_EQ(QXScanner::daemonThreadsInConfiguration(path), entry.threads);
    }
}

TEST_F(QXScannerTest, OneFileOrASmallBatchGoesThroughOneClientAndALargeOneThroughAsManyAsTheDaemonHasThreads)
{
    ScriptEngine engine(noteClient);
    ASSERT_TRUE(useScript(engine));
    ScriptedPrefix configuration;
    QDir().mkpath(engine.enginePath() + "/etc");
    ASSERT_TRUE(
        QFile::copy(configuration.writeFile("clamd.conf", "MaxThreads 3\n"), engine.enginePath() + "/etc/clamd.conf"));
    startScanner();
    for (const int files : {1, 19, 200}) {
        SCOPED_TRACE(files);
        QFile::remove(engine.enginePath() + "/clients");
        QStringList batch;
        for (int i = 0; i < files; ++i)
            batch << QStringLiteral("/x/%1").arg(i);
        delegate.clear();
        scan(batch);
        ASSERT_TRUE(waitForEnd());
        const QList<qint64> pids = clientPids(engine);
        ASSERT_EQ(pids.size(), files == 200 ? 3 : 1);
        // Together the clients' lists are the batch, each name once.
        QStringList listed;
        for (const qint64 pid : pids)
            listed << clientList(engine, pid);
        listed.sort();
        batch.sort();
        EXPECT_EQ(listed, batch);
        EXPECT_EQ(delegate.events().last(), "scanFinishedWithStatus:0");
        for (int i = 1; i <= 3; ++i)
            EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath() + QStringLiteral("-%1").arg(i)));
    }
}

TEST_F(QXScannerTest, ABatchSharedAmongDaemonClientsReportsEveryInfectionOnceAndLogsEveryAnswerOnce)
{
    ASSERT_TRUE(useRealEngine());
    useScanLog();
    QStringList batch, infections, answers;
    for (int i = 0; i < 90; ++i) {
        // Names with ": " in them too, which the engine's answers hold as well.
        const QString name = QStringLiteral("many/%1%2.com").arg(i % 3 ? "" : "a: b ").arg(i);
        if (i % 9 == 4) {
            batch << infected(name);
            infections << infection(batch.last(), eicarName);
            answers << batch.last() + ": Korvane.Test.Eicar.UNOFFICIAL FOUND";
        } else {
            batch << clean(name);
            answers << batch.last() + ": OK";
        }
    }
    const QString split = infected("two\nlines.com");
    batch << split;
    infections << infection(split, eicarName);
    scan(batch);

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.eventsStartingWith("infectionFound:"), ::testing::UnorderedElementsAreArray(infections));
    EXPECT_EQ(delegate.events().size(), infections.size() + 2);
    EXPECT_EQ(delegate.events().last(), "scanFinishedWithStatus:1");
    QStringList log = logLines(delegate.scanLog);
    ASSERT_GT(log.size(), 3);
    EXPECT_TRUE(dateLine.match(log.takeFirst()).hasMatch());
    EXPECT_THAT(log.mid(log.size() - 2), ElementsAre("", ""));
    log.removeLast();
    log.removeLast();
    // The name with a newline is logged as the engine wrote it, over two lines.
    EXPECT_EQ(log.removeAll(split.section('\n', 0, 0)), 1);
    EXPECT_EQ(log.removeAll("lines.com: Korvane.Test.Eicar.UNOFFICIAL FOUND"), 1);
    EXPECT_THAT(log, ::testing::UnorderedElementsAreArray(answers));
}

TEST_F(QXScannerTest, AClientKilledMidBatchEndsTheBatchWithStatusTwoAndNamesExactlyWhatItLeftUnscanned)
{
    // The client given the victim answers for its first name and then
    // hangs; the others answer for all of theirs.
    ScriptEngine engine(noteClient
                        + "if grep -q victim \"$list\"; then\n"
                          "    head -n 1 \"$list\" | sed 's/$/: OK/'\n"
                        + ScriptEngine::waitForRelease() + "fi\nsed 's/$/: OK/' \"$list\"\n");
    ASSERT_TRUE(useScript(engine));
    useScanLog();
    QStringList batch;
    for (int i = 0; i < 30; ++i)
        batch << QStringLiteral("/x/%1").arg(i);
    batch.insert(10, "/x/victim");
    scan(batch);

    qint64 victim = 0;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            for (const qint64 pid : clientPids(engine)) {
                if (clientList(engine, pid).contains("/x/victim"))
                    victim = pid;
            }
            return clientPids(engine).size() == 3 && victim > 0
                   && logLines(delegate.scanLog).contains(clientList(engine, victim).first() + ": OK");
        },
        waitLimit));
    ASSERT_EQ(::kill(pid_t(victim), SIGKILL), 0);

    ASSERT_TRUE(waitForEnd());
    const QStringList left = clientList(engine, victim).mid(1);
    ASSERT_TRUE(left.contains("/x/victim"));
    EXPECT_THAT(delegate.events(),
                ElementsAre("scanStarted", "filesLeftUnscanned:" + left.join('|'), "scanFinishedWithStatus:2"));
    // Every other name got its answer.
    EXPECT_EQ(logLines(delegate.scanLog).filter(": OK").size(), batch.size() - left.size());
    EXPECT_FALSE(scanner->hasChild());
}

TEST_F(QXScannerTest, PauseDuringASharedBatchSuspendsEveryClientAndASecondPauseResumesThemWithNothingLost)
{
    ASSERT_TRUE(useRealEngine());
    // Each client holds still until released, then becomes the real daemon client.
    ScriptEngine engine(noteClient + ScriptEngine::waitForRelease() + "exec "
                        + shellQuoted(EngineFixture::shared().enginePath() + "/bin/clamdscan") + " \"$@\"\n");
    ASSERT_TRUE(useScript(engine));
    QStringList batch, infections;
    for (int i = 0; i < 40; ++i) {
        batch << (i % 4 ? clean(QStringLiteral("p/%1.txt").arg(i)) : infected(QStringLiteral("p/%1.com").arg(i)));
        if (i % 4 == 0)
            infections << infection(batch.last(), eicarName);
    }
    QXScanner *s = startScanner();
    scan(batch);
    ASSERT_TRUE(QTest::qWaitFor([&] { return clientPids(engine).size() == 4 && s->hasChild(); }, waitLimit));
    const QList<qint64> pids = clientPids(engine);

    ASSERT_TRUE(s->pause());
    for (const qint64 pid : pids)
        EXPECT_TRUE(QTest::qWaitFor([&] { return processState(pid) == 'T'; }, waitLimit)) << pid;
    engine.release();
    QTest::qWait(300);
    for (const qint64 pid : pids)
        EXPECT_EQ(processState(pid), 'T') << pid;
    EXPECT_TRUE(delegate.eventsStartingWith("infectionFound:").isEmpty());

    EXPECT_FALSE(s->pause());
    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.eventsStartingWith("infectionFound:"), ::testing::UnorderedElementsAreArray(infections));
    EXPECT_EQ(delegate.events().last(), "scanFinishedWithStatus:1");
    EXPECT_TRUE(delegate.eventsStartingWith("filesLeftUnscanned:").isEmpty());
}

TEST_F(QXScannerTest, StopDuringASharedBatchEndsEveryClientAndScansNoNameLeftForACallOfItsOwn)
{
    ScriptEngine engine(noteClient + ScriptEngine::waitForRelease());
    ASSERT_TRUE(useScript(engine));
    QStringList batch;
    for (int i = 0; i < 20; ++i)
        batch << QStringLiteral("/x/%1").arg(i);
    batch << "/x/two\nlines";
    QXScanner *s = startScanner();
    scan(batch);
    ASSERT_TRUE(QTest::qWaitFor([&] { return clientPids(engine).size() == 2 && s->hasChild(); }, waitLimit));

    s->stop();
    ASSERT_TRUE(waitForEnd());
    EXPECT_EQ(delegate.events().last(), "scanFinishedWithStatus:2");
    for (const qint64 pid : clientPids(engine))
        EXPECT_EQ(processState(pid), '\0') << pid;
    EXPECT_EQ(clientPids(engine).size(), 2);
}
