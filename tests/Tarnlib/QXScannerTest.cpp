#include "Tarnlib/Tarnlib/QXScanner.h"

#include "FakeScannerDelegate.h"
#include "ProcessState.h"
#include "ScriptEngine.h"
#include "platform/Localization.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/LogCapture.h"

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

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

const QRegularExpression dateLine(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d [+-]\\d{4}$"));
const QRegularExpression listFilePath(QStringLiteral("^") + QRegularExpression::escape(QDir::tempPath())
                                      + QStringLiteral("/Korvane-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"));

} // namespace

class QXScannerTest : public ::testing::Test
{
protected:
    QString writeSample(const QString &relative, const QByteArray &contents)
    {
        const QString path = files.filePath(relative);
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
        return path;
    }
    QString infected(const QString &relative) { return writeSample(relative, EngineFixture::eicarContents()); }
    QString clean(const QString &relative) { return writeSample(relative, "nothing to see here\n"); }

    // The log must exist before a run: the scanner only appends to it.
    void useScanLog() { delegate.scanLog = writeSample(QStringLiteral("scan.log"), {}); }
    bool useRealEngine()
    {
        EngineFixture &engine = EngineFixture::shared();
        EXPECT_TRUE(engine.isReady()) << qPrintable(engine.errorString());
        delegate.engine = engine.enginePath();
        return engine.isReady();
    }

    template<typename Scanner = QXScanner>
    Scanner *startScanner()
    {
        auto made = std::make_unique<Scanner>(&delegate);
        Scanner *raw = made.get();
        scanner = std::move(made);
        scanner->start();
        return raw;
    }
    void scan(const QStringList &paths)
    {
        QXScanner *s = scanner.get();
        s->perform([s, paths] { s->runScanOnFiles(paths); });
    }
    // The end report, and then the rest of the run (the log's last newline).
    bool waitForEnd()
    {
        return QTest::qWaitFor([&] { return delegate.ended(); }, waitLimit) && waitForIdleWorker();
    }
    // Once this answers, the run request sent before it has returned too.
    bool waitForIdleWorker()
    {
        // Shared, so that a request still queued after a failed wait finds it alive.
        auto reached = std::make_shared<std::atomic<bool>>(false);
        scanner->perform([reached] { *reached = true; });
        return QTest::qWaitFor([&] { return reached->load(); }, waitLimit);
    }
    static QString found(const QString &path, const QString &name) { return path + QStringLiteral(": ") + name + QStringLiteral(" FOUND"); }

    QTemporaryDir files;
    FakeScannerDelegate delegate;
    std::unique_ptr<QXScanner> scanner;
};

TEST_F(QXScannerTest, DaemonReportsTheInfectedFilesOfAListAndLogsEveryResult)
{
    ASSERT_TRUE(useRealEngine());
    useScanLog();
    const QString eicar = infected(QStringLiteral("eicar.com"));
    const QString colon = infected(QStringLiteral("volume: B/file: x.com"));
    const QString marker = writeSample(QStringLiteral("Grüße.txt"), EngineFixture::markerContents());
    const QString harmless = clean(QStringLiteral("clean.txt"));
    startScanner();
    scan({eicar, harmless, colon, marker});

    ASSERT_TRUE(waitForEnd());
    const QStringList events = delegate.events();
    EXPECT_EQ(events.first(), QStringLiteral("scanStarted"));
    EXPECT_EQ(events.last(), QStringLiteral("scanFinishedWithStatus:1"));
    EXPECT_THAT(delegate.eventsStartingWith(QStringLiteral("infectionFound:")),
                UnorderedElementsAre(QStringLiteral("infectionFound:") + found(eicar, QStringLiteral("Korvane.Test.Eicar")),
                                     QStringLiteral("infectionFound:") + found(colon, QStringLiteral("Korvane.Test.Eicar")),
                                     QStringLiteral("infectionFound:") + found(marker, QStringLiteral("Korvane.Test.Marker"))));
    EXPECT_EQ(events.size(), 5);
    EXPECT_FALSE(delegate.reportsOffMainThread());
    EXPECT_FALSE(delegate.questionsOnMainThread());

    EXPECT_TRUE(listFilePath.match(scanner->scanListTempFilePath()).hasMatch()) << qPrintable(scanner->scanListTempFilePath());
    EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath()));

    const QStringList log = QString::fromUtf8(readFile(delegate.scanLog)).split(QLatin1Char('\n'));
    ASSERT_EQ(log.size(), 7) << qPrintable(log.join('|'));
    EXPECT_TRUE(dateLine.match(log.at(0)).hasMatch()) << qPrintable(log.at(0));
    EXPECT_THAT(log.mid(1, 4),
                UnorderedElementsAre(eicar + QStringLiteral(": Korvane.Test.Eicar.UNOFFICIAL FOUND"),
                                     colon + QStringLiteral(": Korvane.Test.Eicar.UNOFFICIAL FOUND"),
                                     marker + QStringLiteral(": Korvane.Test.Marker.UNOFFICIAL FOUND"),
                                     harmless + QStringLiteral(": OK")));
    // Every entry ends in a newline, and the run adds one more.
    EXPECT_THAT(log.mid(5), ElementsAre(QString(), QString()));
}

TEST_F(QXScannerTest, CleanFilesGivenAsArgumentsEndWithStatusZeroAndWriteNoListNorLog)
{
    ASSERT_TRUE(useRealEngine());
    delegate.fileList = false;
    delegate.scanLog = files.filePath(QStringLiteral("Logs/KorvaneVarden-scan.log"));
    const QStringList batch{clean(QStringLiteral("a.txt")), clean(QStringLiteral("with space/b.txt"))};
    startScanner();
    scan(batch);

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.events(), ElementsAre(QStringLiteral("scanStarted"), QStringLiteral("scanFinishedWithStatus:0")));
    EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath()));
    EXPECT_FALSE(QFile::exists(delegate.scanLog));
}

TEST_F(QXScannerTest, SavedSearchIsScannedTogetherWithTheFilesItFinds)
{
    ASSERT_TRUE(useRealEngine());
    useScanLog();
    LogCapture systemLog;
    const QString search = clean(QStringLiteral("Downloads.savedSearch"));
    const QString first = infected(QStringLiteral("Downloads/one.com"));
    const QString gone = files.filePath(QStringLiteral("Downloads/gone.com"));
    delegate.savedSearches.insert(search, {first, gone});
    startScanner();
    scan({search});

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.eventsStartingWith(QStringLiteral("infectionFound:")),
                ElementsAre(QStringLiteral("infectionFound:") + found(first, QStringLiteral("Korvane.Test.Eicar"))));
    EXPECT_TRUE(delegate.eventsStartingWith(QStringLiteral("appendToConsole:")).isEmpty());
    // The saved search's own file is in the list as well.
    EXPECT_TRUE(QString::fromUtf8(readFile(delegate.scanLog)).contains(search + QStringLiteral(": OK\n")));
    // What the engine says on its error output goes to the system log only.
    EXPECT_TRUE(systemLog.anyContains(QStringLiteral("error:"))) << qPrintable(systemLog.lines().join('|'));
    EXPECT_TRUE(systemLog.anyContains(gone));
}

TEST_F(QXScannerTest, StandAloneScannerSkipsTheQuarantineAndReportsProgress)
{
    ASSERT_TRUE(useRealEngine());
    useScanLog();
    delegate.clamd = false;
    delegate.updates = true;
    delegate.quarantine = true;
    const QString folder = files.filePath(QStringLiteral("tree"));
    const QString eicar = infected(QStringLiteral("tree/eicar.com"));
    const QString harmless = clean(QStringLiteral("tree/clean.txt"));
    infected(QStringLiteral("tree/Quarantine/held.com"));
    delegate.quarantineFolder = files.filePath(QStringLiteral("tree/Quarantine"));
    startScanner();
    scan({folder});

    ASSERT_TRUE(waitForEnd());
    const QStringList events = delegate.events();
    EXPECT_THAT(delegate.eventsStartingWith(QStringLiteral("infectionFound:")),
                ElementsAre(QStringLiteral("infectionFound:") + found(eicar, QStringLiteral("Korvane.Test.Eicar"))));
    EXPECT_THAT(delegate.eventsStartingWith(QStringLiteral("updateProgressWithMessage:")),
                UnorderedElementsAre(QStringLiteral("updateProgressWithMessage:Scanning ") + eicar,
                                     QStringLiteral("updateProgressWithMessage:Scanning ") + harmless));
    EXPECT_EQ(events.count(QStringLiteral("updateProgressBar")), 2);
    EXPECT_THAT(events.mid(events.size() - 2),
                ElementsAre(QStringLiteral("updateProgressWithPercentDone:100"), QStringLiteral("scanFinishedWithStatus:1")));

    const QString log = QString::fromUtf8(readFile(delegate.scanLog));
    const QStringList lines = log.split(QLatin1Char('\n'));
    ASSERT_GT(lines.size(), 7);
    EXPECT_EQ(lines.at(0), QString(79, QLatin1Char('-')));
    EXPECT_TRUE(dateLine.match(lines.at(1)).hasMatch()) << qPrintable(lines.at(1));
    EXPECT_THAT(lines.mid(2, 5), ElementsAre(QStringLiteral("Items to be scanned:"), QString(), folder, QString(), QString()));
    EXPECT_TRUE(log.contains(eicar + QStringLiteral(": Korvane.Test.Eicar.UNOFFICIAL FOUND\n")));
    EXPECT_TRUE(log.contains(QStringLiteral("SCAN SUMMARY")));
    EXPECT_FALSE(log.contains(QStringLiteral("Scanning ")));
    EXPECT_FALSE(log.contains(QStringLiteral("held.com: Korvane")));
    EXPECT_TRUE(log.endsWith(QStringLiteral("\n\n")));
}

TEST_F(QXScannerTest, DaemonClientGetsNoSummaryTheExtraArgumentsAndTheList)
{
    ScriptEngine engine(QStringLiteral("exit 0"));
    ASSERT_TRUE(engine.isValid());
    delegate.engine = engine.enginePath();
    // Settings of the stand-alone form only; the daemon client ignores them.
    delegate.exclusions = {QStringLiteral("--exclude=\\.log$")};
    delegate.quarantine = true;
    delegate.quarantineFolder = QStringLiteral("/q");
    delegate.additional = QStringLiteral("--one  --two");
    delegate.savedSearches.insert(QStringLiteral("/x/Recent.savedSearch"), {QStringLiteral("/y/ä"), QStringLiteral("/y/2")});
    delegate.savedSearches.insert(QStringLiteral("/x/tiny.savedSearch"), {QStringLiteral("ab")});
    startScanner();
    scan({QStringLiteral("/x/one"), QStringLiteral("/x/Recent.savedSearch"), QStringLiteral("/x/tiny.savedSearch")});

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(engine.recordedArguments(),
                ElementsAre(QStringLiteral("--no-summary"), QStringLiteral("--one"), QString(), QStringLiteral("--two"),
                            QStringLiteral("--file-list=") + scanner->scanListTempFilePath()));
    EXPECT_EQ(QString::fromUtf8(engine.copiedFileList()),
              QStringLiteral("/x/one\n/x/Recent.savedSearch\n/x/tiny.savedSearch\n/y/ä\n/y/2"));
    EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath()));
}

TEST_F(QXScannerTest, StandAloneScannerGetsExclusionsRootPairsQuarantineAndPaths)
{
    ScriptEngine engine(QStringLiteral("exit 0"));
    ASSERT_TRUE(engine.isValid());
    delegate.engine = engine.enginePath();
    delegate.clamd = false;
    delegate.fileList = false;
    delegate.noSummary = true;
    delegate.exclusions = {QStringLiteral("--exclude=\\.log$"), QStringLiteral("--exclude-dir=cache")};
    delegate.rootExclusions = {QStringLiteral("A"), QStringLiteral("B")};
    delegate.quarantine = true;
    delegate.quarantineFolder = QStringLiteral("/q");
    delegate.additional = QString();
    startScanner();
    scan({QStringLiteral("/"), QStringLiteral("/home"), QStringLiteral("/")});

    ASSERT_TRUE(waitForEnd());
    const QStringList rootPairs{QStringLiteral("--exclude=^A"), QStringLiteral("--exclude-dir=^A"),
                                QStringLiteral("--exclude=^B"), QStringLiteral("--exclude-dir=^B")};
    const QStringList expected = QStringList{QStringLiteral("-rv"), QStringLiteral("--exclude=\\.log$"), QStringLiteral("--exclude-dir=cache")}
        + rootPairs + rootPairs
        + QStringList{QStringLiteral("--exclude=^/q"), QStringLiteral("--exclude-dir=^/q"), QStringLiteral("--scan-mail=no"),
                      QStringLiteral("--no-summary"), QString(), QStringLiteral("/"), QStringLiteral("/home"), QStringLiteral("/")};
    EXPECT_EQ(engine.recordedArguments(), expected);
    EXPECT_TRUE(engine.copiedFileList().isEmpty());
}

TEST_F(QXScannerTest, OutputCutAnywhereIsParsedAsWholeLines)
{
    ScriptEngine engine(ScriptEngine::waitForRelease());
    ASSERT_TRUE(engine.isValid());
    delegate.engine = engine.enginePath();
    delegate.updates = true;
    useScanLog();
    ChunkFedScanner *fed = startScanner<ChunkFedScanner>();
    scan({QStringLiteral("/x")});
    ASSERT_TRUE(QTest::qWaitFor([&] { return engine.pid() > 0 && fed->hasChild(); }, waitLimit));

    // Fed on the worker's thread while the child runs, as the pipe would be.
    const QList<QByteArray> chunks{
        "/x/a: Korvane.Te", "st.Eicar.UNOFF", "ICIAL FOUND\nScann", "ing /x/b\nx\n\n",
        "/x/gr\xC3", "\xBC\xC3\x9F" "e: OK\nLibClamAV Warning: The virus database is older than 7 days!\n",
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
                ElementsAre(QStringLiteral("scanStarted"),
                            QStringLiteral("infectionFound:/x/a: Korvane.Test.Eicar FOUND"),
                            QStringLiteral("updateProgressWithMessage:Scanning /x/b"),
                            QStringLiteral("updateProgressBar"),
                            QStringLiteral("appendToConsole:\n"),
                            QStringLiteral("appendToConsole:") + Localization::text("DB_OUT_OF_DATE"),
                            // The output ended without a newline: its last line still counts.
                            QStringLiteral("infectionFound:/x/last: Korvane.Test.Marker FOUND"),
                            QStringLiteral("updateProgressWithPercentDone:100"),
                            QStringLiteral("scanFinishedWithStatus:0")));
    const QStringList log = QString::fromUtf8(readFile(delegate.scanLog)).split(QLatin1Char('\n'));
    ASSERT_FALSE(log.isEmpty());
    EXPECT_THAT(log.mid(1),
                ElementsAre(QStringLiteral("/x/a: Korvane.Test.Eicar.UNOFFICIAL FOUND"),
                            QStringLiteral("/x/grüße: OK"),
                            QStringLiteral("LibClamAV Warning: The virus database is older than 7 days!"),
                            QStringLiteral("/x/last: Korvane.Test.Marker.UNOFFICIAL FOUND"),
                            QString(), QString()));
}

TEST_F(QXScannerTest, MissingEngineProgramReportsACrashAndLeavesTheList)
{
    useScanLog();
    delegate.engine = files.filePath(QStringLiteral("no engine"));
    const QString harmless = clean(QStringLiteral("clean.txt"));
    startScanner();
    scan({harmless});

    ASSERT_TRUE(waitForEnd());
    const QStringList events = delegate.events();
    ASSERT_EQ(events.size(), 2) << qPrintable(events.join('|'));
    EXPECT_EQ(events.at(0), QStringLiteral("scanStarted"));
    const QString prefix = QStringLiteral("scanCrashed:launch path not accessible: ") + delegate.engine + QStringLiteral("/bin/clamdscan: ");
    EXPECT_TRUE(events.at(1).startsWith(prefix)) << qPrintable(events.at(1));
    EXPECT_TRUE(events.at(1).contains(QLatin1String("No such file or directory"))) << qPrintable(events.at(1));

    EXPECT_EQ(readFile(scanner->scanListTempFilePath()), harmless.toUtf8());
    QFile::remove(scanner->scanListTempFilePath());
    const QString log = QString::fromUtf8(readFile(delegate.scanLog));
    EXPECT_TRUE(log.endsWith(QStringLiteral("\n\n")));
    EXPECT_TRUE(dateLine.match(log.chopped(2)).hasMatch()) << qPrintable(log);
}

TEST_F(QXScannerTest, EngineKilledFromOutsideEndsTheScanWithTheSignal)
{
    ScriptEngine engine(QStringLiteral("echo 'Scanning /x'\n") + ScriptEngine::waitForRelease());
    ASSERT_TRUE(engine.isValid());
    delegate.engine = engine.enginePath();
    const QStringList batch{clean(QStringLiteral("a.txt")), clean(QStringLiteral("b.txt"))};
    startScanner();
    scan(batch);
    ASSERT_TRUE(QTest::qWaitFor([&] { return engine.pid() > 0; }, waitLimit));
    // The list was complete before the engine started.
    EXPECT_EQ(QString::fromUtf8(engine.copiedFileList()), batch.join(QLatin1Char('\n')));

    ASSERT_EQ(::kill(pid_t(engine.pid()), SIGKILL), 0);

    ASSERT_TRUE(waitForEnd());
    EXPECT_EQ(delegate.events().last(), QStringLiteral("scanFinishedWithStatus:%1").arg(SIGKILL));
    EXPECT_FALSE(QFile::exists(scanner->scanListTempFilePath()));
    EXPECT_FALSE(scanner->hasChild());
}

TEST_F(QXScannerTest, PauseSuspendsTheEngineAndASecondPauseResumesIt)
{
    ScriptEngine engine(ScriptEngine::waitForRelease() + QStringLiteral("echo \"/x: Korvane.Test.Eicar.UNOFFICIAL FOUND\"\nexit 1"));
    ASSERT_TRUE(engine.isValid());
    delegate.engine = engine.enginePath();
    QXScanner *s = startScanner();
    // Between runs there is nothing to pause or stop.
    EXPECT_FALSE(s->pause());
    s->stop();
    EXPECT_FALSE(s->paused());

    scan({QStringLiteral("/x")});
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

    engine.release();
    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.events(),
                ElementsAre(QStringLiteral("scanStarted"), QStringLiteral("infectionFound:/x: Korvane.Test.Eicar FOUND"),
                            QStringLiteral("scanFinishedWithStatus:1")));
}

TEST_F(QXScannerTest, StopEndsASuspendedEngine)
{
    ScriptEngine engine(ScriptEngine::waitForRelease());
    ASSERT_TRUE(engine.isValid());
    delegate.engine = engine.enginePath();
    QXScanner *s = startScanner();
    scan({QStringLiteral("/x")});
    ASSERT_TRUE(QTest::qWaitFor([&] { return engine.pid() > 0 && s->hasChild(); }, waitLimit));
    ASSERT_TRUE(s->pause());
    ASSERT_TRUE(QTest::qWaitFor([&] { return processState(engine.pid()) == 'T'; }, waitLimit));

    s->stop();

    ASSERT_TRUE(waitForEnd());
    EXPECT_EQ(delegate.events().last(), QStringLiteral("scanFinishedWithStatus:%1").arg(SIGTERM));
    EXPECT_FALSE(s->paused());
    EXPECT_FALSE(QFile::exists(s->scanListTempFilePath()));
}

TEST_F(QXScannerTest, WithLoggingOffTheLogGetsOneNewlineAfterTheEndReport)
{
    ASSERT_TRUE(useRealEngine());
    useScanLog();
    delegate.logging = false;
    QByteArray logWhileEnding = "unread";
    delegate.onFinished = [&] { logWhileEnding = readFile(delegate.scanLog); };
    startScanner();
    scan({infected(QStringLiteral("eicar.com"))});

    ASSERT_TRUE(waitForEnd());
    // The end report held the run, so the newline came after it.
    EXPECT_EQ(logWhileEnding, QByteArray());
    EXPECT_EQ(readFile(delegate.scanLog), QByteArray("\n"));
    EXPECT_EQ(delegate.eventsStartingWith(QStringLiteral("infectionFound:")).size(), 1);
}

TEST_F(QXScannerTest, HandMadeEnginePrefixDetectsTheSameSignatures)
{
    EngineFixture engine(EngineFixture::Layout::HandMade);
    ASSERT_TRUE(engine.isReady()) << qPrintable(engine.errorString());
    delegate.engine = engine.enginePath();
    const QString eicar = infected(QStringLiteral("eicar.com"));
    startScanner();
    scan({eicar});

    ASSERT_TRUE(waitForEnd());
    EXPECT_THAT(delegate.events(),
                ElementsAre(QStringLiteral("scanStarted"),
                            QStringLiteral("infectionFound:") + found(eicar, QStringLiteral("Korvane.Test.Eicar")),
                            QStringLiteral("scanFinishedWithStatus:1")));
}
