#include "RealEngineAgentFixture.h"
#include "app/CleanScanJournal.h"
#include "app/DefinitionsRescan.h"
#include "tests/support/RecordingNotificationCenter.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

namespace {

const QByteArray laterContents = "KORVANE-RESCAN-ONLY-THE-SECOND-SET-KNOWS-THIS-5c1e0a77";

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeAll(const QString &path, const QByteArray &text, QFile::OpenMode mode = QIODevice::Truncate)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | mode) && file.write(text) == text.size();
}

class RescanTest : public RealEngineAgentFixture
{
protected:
    bool journaled(const QStringList &paths) const
    {
        return QTest::qWaitFor(
            [&] {
                QStringList known;
                for (const CleanScanJournal::Entry &entry : agent->cleanScanJournal()->entries())
                    known << entry.path;
                return std::all_of(paths.begin(), paths.end(), [&](const QString &p) { return known.contains(p); });
            },
            30000);
    }

    QList<QPair<QString, QString>> toldOf(const QString &fileName) const
    {
        QList<QPair<QString, QString>> told;
        for (const auto &notification : notifications.delivered) {
            if (notification.second.startsWith(fileName + " infected with"))
                told << notification;
        }
        return told;
    }

    RecordingNotificationCenter notifications;
};

} // namespace

// A file the first definitions let through is found once the update brings
// a signature for it; a file still being written meanwhile is left to the
// watcher, which scans it once, as new.
TEST_F(RescanTest, UpdateFindsWhatPassedBeforeAndChangedFilesAreScannedOnce)
{
    EngineFixture engine(EngineFixture::Layout::InstallScript);
    ASSERT_TRUE(engine.isReady()) << engine.errorString().toStdString();
    privateEngine = engine.enginePath();
    ASSERT_TRUE(engine.offerUpdate("Korvane.Test.Later:0:*:" + laterContents.toHex() + '\n', 900002))
        << engine.errorString().toStdString();

    launchWatching();
    const QString later = write("later.bin", laterContents);
    const QString grown = write("grown.txt", "harmless\n");
    ASSERT_TRUE(journaled({later, grown}));
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_TRUE(listedPaths().isEmpty());

    // Still growing while the update comes and the rescan runs.
    QTimer grow;
    QObject::connect(&grow, &QTimer::timeout, [&] { writeAll(grown, "x", QIODevice::Append); });
    grow.start(300);
    agent->updateDefs(nullptr);
    ASSERT_TRUE(waitUntilListed(later));
    grow.stop();
    ASSERT_TRUE(writeAll(grown, laterContents, QIODevice::Append));
    ASSERT_TRUE(waitUntilListed(grown));
    ASSERT_TRUE(waitUntilIdle());

    ASSERT_EQ(toldOf("later.bin").size(), 1);
    EXPECT_TRUE(toldOf("later.bin").first().second.contains("found after the update of"));
    ASSERT_EQ(toldOf("grown.txt").size(), 1);
    EXPECT_FALSE(toldOf("grown.txt").first().second.contains("found after the update"));

    const QByteArray scanLog = readAll(home.filePath(".local/state/korvane/KorvaneVarden-scan.log"));
    const QByteArray sinceUpdate = scanLog.mid(scanLog.indexOf("Scanning again"));
    ASSERT_FALSE(sinceUpdate.isEmpty()) << scanLog.toStdString();
    EXPECT_TRUE(sinceUpdate.contains("\n  " + later.toUtf8() + "\n")) << scanLog.toStdString();
    EXPECT_EQ(sinceUpdate.count(grown.toUtf8()), 1) << scanLog.toStdString();
}

// A crash while the journal was written leaves a cut line: the agent starts
// with what came before and keeps journaling.
TEST_F(RescanTest, AgentStartsOnAJournalCutOffMidWrite)
{
    const QString kept = home.writeFile("Watched/kept.txt", "clean");
    CleanScanJournal::Entry entry = *CleanScanJournal::entryForFile(kept);
    entry.scannedAt = QDateTime::currentMSecsSinceEpoch();
    const QByteArray line = CleanScanJournal::lineOf(entry);
    QDir().mkpath(home.filePath(".local/state/korvane"));
    ASSERT_TRUE(writeAll(home.filePath(".local/state/korvane/clean-scans.journal"), line + line.left(20)));

    launchWatching();
    EXPECT_EQ(agent->cleanScanJournal()->count(), 1);
    const QString fresh = write("fresh.txt", "clean too");
    EXPECT_TRUE(journaled({kept, fresh}));
}

// The list still to scan again survives a stop, a quit or a kill: a batch
// that was handed out but not finished is handed out again, and a file
// changed since its clean scan is never in a batch.
TEST(DefinitionsRescanTest, ResumesWhereItStoppedAndSkipsChangedFiles)
{
    QTemporaryDir dir;
    const QString folder = dir.filePath("state");
    QStringList files;
    for (int i = 0; i < 5; ++i) {
        files << dir.filePath(QStringLiteral("f%1").arg(i));
        ASSERT_TRUE(writeAll(files.last(), "clean"));
    }
    CleanScanJournal journal(folder);
    ASSERT_TRUE(journal.load());
    QList<CleanScanJournal::Entry> entries;
    for (qsizetype i = 0; i < files.size(); ++i) {
        entries << *CleanScanJournal::entryForFile(files.at(i));
        entries.last().scannedAt = QDateTime::currentMSecsSinceEpoch() - 1000 + i;
    }
    journal.record(entries);
    ASSERT_TRUE(writeAll(files.at(3), "changed since"));

    const struct
    {
        const char *what;
        bool finishFirstBatch;
        QStringList rest;
    } cases[] = {
        {"stopped after a batch", true, {files.at(2), files.at(1), files.at(0)}},
        {"killed during a batch", false, {files.at(4), files.at(2), files.at(1), files.at(0)}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        {
            DefinitionsRescan rescan(&journal, folder);
            rescan.definitionsReported("ClamAV 1.4.6/1/Mon Nov 23 10:00:00 2026", true);
            rescan.definitionsReported("ClamAV 1.4.6/2/Wed Nov 25 10:00:00 2026", true);
            ASSERT_TRUE(rescan.hasPending());
            EXPECT_EQ(rescan.takeBatch(1), QStringList{files.at(4)});
            if (c.finishFirstBatch)
                rescan.batchDone();
        }
        DefinitionsRescan resumed(&journal, folder);
        // The same definitions reported at the next start change nothing.
        EXPECT_FALSE(resumed.definitionsReported("ClamAV 1.4.6/2/Wed Nov 25 10:00:00 2026", true));
        EXPECT_EQ(resumed.takeBatch(10), c.rest);
        resumed.batchDone();
        EXPECT_FALSE(resumed.hasPending());
        // Back to the first definitions for the next case.
        resumed.definitionsReported("ClamAV 1.4.6/0/Sun Nov 22 10:00:00 2026", false);
    }
}
