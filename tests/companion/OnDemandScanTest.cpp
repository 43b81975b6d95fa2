#include "CompanionFixture.h"
#include "companion/OnDemandScan.h"
#include "platform/PropertyList.h"
#include "platform/UserFolders.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/ScannerProcesses.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QSignalSpy>
#include <QTest>
#include <QTextStream>

#include <csignal>
#include <unistd.h>

namespace {

QList<QXUtils::EngineCandidate> testEngine()
{
    const QString prefix = EngineFixture::shared().enginePath();
    return {{prefix, prefix + QStringLiteral("/share/clamav/freshclam.log")}};
}

enum class Road { Daemon, Standalone };

std::ostream &operator<<(std::ostream &out, Road road)
{
    return out << (road == Road::Daemon ? "daemon" : "standalone");
}

} // namespace

class OnDemandScanTest : public CompanionFixture, public ::testing::WithParamInterface<Road>
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(EngineFixture::shared().isReady()) << EngineFixture::shared().errorString().toStdString();
    }

    QString write(const QString &relative, const QByteArray &contents = EngineFixture::eicarContents())
    {
        return home->writeFile(relative.toUtf8(), contents);
    }

    // Scans and waits for the end; rows are the infected files listed.
    OnDemandScan::Summary scan(OnDemandScan &scanner, const QStringList &paths)
    {
        scanner.setStandalone(GetParam() == Road::Standalone);
        QSignalSpy finished(&scanner, &OnDemandScan::finished);
        scanner.start(paths);
        EXPECT_TRUE(finished.count() > 0 || finished.wait(60000));
        return finished.value(0).value(0).value<OnDemandScan::Summary>();
    }

    static QStringList rows(const OnDemandScan &scanner)
    {
        QStringList paths;
        for (const InfectedItem &item : scanner.results()->arrangedObjects())
            paths << item.value(QStringLiteral("filePath")).toString();
        paths.sort();
        return paths;
    }
};

TEST_P(OnDemandScanTest, FindsExactlyTheInfectedFilesAtEveryDepthAndLeavesExcludedFoldersOut)
{
    home->writeDomain(QStringLiteral("org.korvane.Korvane"),
                      {{QStringLiteral("ExcludePatterns"),
                        QVariantList{QVariantMap{{QStringLiteral("excludePattern"), QStringLiteral("Skipped")},
                                                 {QStringLiteral("excludeEnabled"), true}}}}});
    QStringList infected{write("Scan/top.com"), write("Scan/a/b/two.com"), write("Scan/a/b/c/d/four.com")};
    infected.sort();
    write("Scan/clean.txt", "nothing here");
    write("Scan/a/b/c/clean.txt", "nothing here either");
    write("Scan/a/Skipped/hidden.com");

    OnDemandScan scanner(testEngine());
    QSignalSpy progress(&scanner, &OnDemandScan::progress);
    const OnDemandScan::Summary summary = scan(scanner, {home->filePath("Scan")});

    EXPECT_EQ(rows(scanner), infected);
    EXPECT_EQ(summary.result, OnDemandScan::Result::Infected) << summary.error.toStdString();
    EXPECT_EQ(summary.infected, 3);
    ASSERT_FALSE(progress.isEmpty());
    // The bar ends full, and never ran past its total.
    EXPECT_EQ(progress.last().value(0), progress.last().value(1));
    for (const QList<QVariant> &step : std::as_const(progress))
        EXPECT_LE(step.value(0).toLongLong(), step.value(1).toLongLong());
}

TEST_P(OnDemandScanTest, StopOrAKillFromOutsideEndsTheScanAsStoppedWithNoScannerLeft)
{
    // As many paths as a file manager's selection hands over: the daemon's
    // batch is shared among several clients.
    QStringList many;
    for (int i = 0; i < 400; ++i)
        many << QFileInfo(write(QStringLiteral("Many/%1/file.txt").arg(i), QByteArray(20000, 'a' + i % 26))).path();
    for (const bool fromOutside : {false, true}) {
        SCOPED_TRACE(fromOutside ? "killed from outside" : "stopped");
        OnDemandScan scanner(testEngine());
        scanner.setStandalone(GetParam() == Road::Standalone);
        QSignalSpy finished(&scanner, &OnDemandScan::finished);
        ASSERT_TRUE(scanner.start(many));
        ASSERT_TRUE(QTest::qWaitFor([] { return !scannerChildren().isEmpty(); }, 30000));
        if (fromOutside) {
            // What the agent's Abort Scans does to the user's scanners, for
            // as long as any is there.
            EXPECT_TRUE(QTest::qWaitFor(
                [&] {
                    for (const qint64 pid : scannerChildren())
                        ::kill(pid_t(pid), SIGKILL);
                    return !finished.isEmpty();
                },
                30000));
        } else {
            scanner.stop();
            ASSERT_TRUE(finished.count() > 0 || finished.wait(30000));
        }
        EXPECT_EQ(finished.value(0).value(0).value<OnDemandScan::Summary>().result, OnDemandScan::Result::Stopped);
        EXPECT_TRUE(scannerChildren().isEmpty());
    }
}

TEST_P(OnDemandScanTest, ASavedSearchScansWhatItsQueryFindsOutsideExcludedFolders)
{
    QStringList found{write("Found/one.com"), write("Found/deep/er/two.com")};
    found.sort();
    // Infected too, but the query does not find the first, and the second
    // lies in a folder the settings exclude.
    write("Found/left.exe");
    write("Found/Skipped/hidden.com");
    home->writeDomain(QStringLiteral("org.korvane.Korvane"),
                      {{QStringLiteral("ExcludePatterns"),
                        QVariantList{QVariantMap{{QStringLiteral("excludePattern"), QStringLiteral("Skipped")},
                                                 {QStringLiteral("excludeEnabled"), true}}}}});
    const QVariantMap search{{QStringLiteral("RawQueryDict"),
                              QVariantMap{{QStringLiteral("RawQuery"), QStringLiteral(R"(kMDItemFSName == "*.com")")},
                                          {QStringLiteral("SearchScopes"), QVariantList{home->filePath("Found")}}}}};
    const QString path = home->filePath("Infected.savedSearch");
    ASSERT_TRUE(PropertyList::writeXmlFile(path, search));

    OnDemandScan scanner(testEngine());
    const OnDemandScan::Summary summary = scan(scanner, {path});

    EXPECT_EQ(rows(scanner), found);
    EXPECT_EQ(summary.result, OnDemandScan::Result::Infected) << summary.error.toStdString();
    EXPECT_EQ(summary.infected, 2);
}

INSTANTIATE_TEST_SUITE_P(BothRoads, OnDemandScanTest, ::testing::Values(Road::Daemon, Road::Standalone));

class ScanCommandLineTest : public CompanionFixture
{};

TEST_F(ScanCommandLineTest, ExitsZeroCleanOneInfectedTwoOnAMissingPath)
{
    ASSERT_TRUE(EngineFixture::shared().isReady());
    home->writeDomain(QStringLiteral("org.korvane.Korvane"),
                      {{QStringLiteral("QuarantineFolder"), home->filePath("Quarantine")}});
    home->writeFile("Clean/readme.txt", "nothing here");
    const QString infected = home->writeFile("Infected/deep/er/x.com", EngineFixture::eicarContents());
    const QString toQuarantine = home->writeFile("Moved/deep/y.com", EngineFixture::eicarContents());
    const struct
    {
        QString path;
        bool quarantine;
        int exitCode;
        QString printed;
    } cases[] = {
        {home->filePath("Clean"), false, 0, QStringLiteral("Infected files: 0")},
        {home->filePath("Infected"), false, 1, infected + QStringLiteral(": ")},
        {home->filePath("Moved"), true, 1, QStringLiteral("Moved into quarantine: 1")},
        {home->filePath("Missing"), false, 2, QStringLiteral("no such file or folder")},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.path.toStdString());
        QString output;
        QTextStream out(&output);
        EXPECT_EQ(OnDemandScan::runFromCommandLine({row.path}, row.quarantine, false, out, testEngine()), row.exitCode);
        EXPECT_TRUE(output.contains(row.printed)) << output.toStdString();
    }
    EXPECT_TRUE(QFile::exists(infected));
    EXPECT_FALSE(QFile::exists(toQuarantine));
    EXPECT_TRUE(QFile::exists(home->filePath("Quarantine/y.com")));
    // The results are in the companion's own scan log, not the agent's.
    QFile log(UserFolders::logs() + QStringLiteral("/korvane-scan.log"));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().contains(infected.toUtf8() + ": "));
    EXPECT_FALSE(QFile::exists(UserFolders::logs() + QStringLiteral("/KorvaneVarden-scan.log")));
}

TEST_F(ScanCommandLineTest, WithoutADisplayAFileThatCannotBeQuarantinedIsReportedAndTheScanEnds)
{
    ASSERT_TRUE(EngineFixture::shared().isReady());
    // No quarantine folder is set.
    home->writeDomain(QStringLiteral("org.korvane.Korvane"),
                      {{QStringLiteral("PathToClamav"), EngineFixture::shared().enginePath()}});
    const QString infected = home->writeFile("Infected/x.com", EngineFixture::eicarContents());
    QString output;
    EXPECT_EQ(runKorvane({"--scan", "--quarantine", home->filePath("Infected")}, &output), 1) << output.toStdString();
    EXPECT_TRUE(output.contains("Not moved into quarantine: " + infected)) << output.toStdString();
    EXPECT_TRUE(QFile::exists(infected));
}
