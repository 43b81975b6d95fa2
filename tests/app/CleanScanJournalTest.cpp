#include "app/CleanScanJournal.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>

namespace {

CleanScanJournal::Entry entry(int i, qint64 scannedAt = QDateTime::currentMSecsSinceEpoch())
{
    CleanScanJournal::Entry e;
    e.path = QStringLiteral("/home/u/Downloads/file %1\nwith a newline and 100%").arg(i);
    e.device = 2049;
    e.inode = 1000 + quint64(i);
    e.size = 4096;
    e.mtimeNs = 1700000000123456789;
    e.ctimeNs = 1700000000987654321;
    e.scannedAt = scannedAt + i;
    return e;
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &text)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(text);
}

class CleanScanJournalTest : public ::testing::Test
{
protected:
    QString folder() const { return dir.filePath(QStringLiteral("state/korvane")); }

    QTemporaryDir dir;
};

} // namespace

// A crash may leave the last line cut, or blocks of zeros or garbage where
// lines were: what comes before is kept, and later appends are readable.
TEST_F(CleanScanJournalTest, DamagedJournalIsReadUpToTheDamageAndStaysUsable)
{
    const QByteArray line0 = CleanScanJournal::lineOf(entry(0));
    const QByteArray line1 = CleanScanJournal::lineOf(entry(1));
    const QByteArray line2 = CleanScanJournal::lineOf(entry(2));
    QByteArray flipped = line1;
    flipped[flipped.size() / 2] = flipped[flipped.size() / 2] == '7' ? '8' : '7';
    const struct
    {
        const char *damage;
        QByteArray text;
        qsizetype kept;
    } cases[] = {
        {"cut mid-line", line0 + line1.left(line1.size() / 2), 1},
        {"zeros after a crash", line0 + QByteArray(4096, '\0') + line2, 1},
        {"one byte changed", line0 + flipped + line2, 1},
        {"no newline at the end", line0 + line1.chopped(1), 1},
        {"empty line", line0 + "\n" + line1, 1},
        {"garbage first", "not a journal\n" + line0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.damage);
        QDir(folder()).removeRecursively();
        ASSERT_TRUE(QDir().mkpath(folder()));
        QFile::setPermissions(folder(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        CleanScanJournal journal(folder());
        writeAll(journal.filePath(), c.text);
        ASSERT_TRUE(journal.load()) << journal.problem().toStdString();
        EXPECT_EQ(journal.count(), c.kept);

        journal.record({entry(7)});
        journal.flush();
        CleanScanJournal again(folder());
        ASSERT_TRUE(again.load());
        EXPECT_EQ(again.count(), c.kept + 1);
        EXPECT_EQ(again.entries().constLast().path, entry(7).path);
    }
}

// Another user who can write into the folder, or a link planted in place of
// the journal, must not make the agent read or write a file of their choice.
TEST_F(CleanScanJournalTest, RefusesFoldersAndFilesOthersCouldHavePlanted)
{
    const QString victim = dir.filePath(QStringLiteral("victim"));
    const struct
    {
        const char *plant;
        std::function<void(const QString &journal)> prepare;
    } cases[] = {
        {"link in place of the journal", [&](const QString &journal) { QFile::link(victim, journal); }},
        {"folder others can write",
         [&](const QString &) {
             QFile::setPermissions(folder(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::WriteOther
                                                 | QFile::ExeOther);
         }},
        {"folder is a link",
         [&](const QString &) {
             QDir(folder()).removeRecursively();
             QDir().mkpath(dir.filePath(QStringLiteral("elsewhere")));
             QFile::link(dir.filePath(QStringLiteral("elsewhere")), folder());
         }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.plant);
        QDir(folder()).removeRecursively();
        QFile::remove(folder());
        writeAll(victim, "someone else's file\n");
        CleanScanJournal journal(folder());
        ASSERT_TRUE(journal.load());
        c.prepare(journal.filePath());

        CleanScanJournal planted(folder());
        EXPECT_FALSE(planted.load());
        EXPECT_FALSE(planted.problem().isEmpty());
        planted.record({entry(1)});
        planted.flush();
        EXPECT_EQ(readAll(victim), "someone else's file\n");
        EXPECT_FALSE(QFile::exists(dir.filePath(QStringLiteral("elsewhere/clean-scans.journal"))));
    }
}

TEST_F(CleanScanJournalTest, NewFolderIsPrivate)
{
    CleanScanJournal journal(folder());
    ASSERT_TRUE(journal.load());
    EXPECT_EQ(QFile::permissions(folder()) & 0x0077, 0);
    journal.record({entry(1)});
    journal.flush();
    EXPECT_EQ(QFile::permissions(journal.filePath()) & 0x0077, 0);
}

// Entries past the age or the count go, the oldest first, and the file that
// grows by appends is rewritten before it holds twice what is live.
TEST_F(CleanScanJournalTest, OldAndSurplusEntriesAreDroppedOldestFirst)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const qint64 day = 24 * 3600 * 1000;
    CleanScanJournal journal(folder());
    ASSERT_TRUE(journal.load());
    journal.setMaxAgeDays(14);
    journal.setMaxEntries(1500);
    journal.record({entry(0, now - 15 * day), entry(1, now - 13 * day)});
    QList<CleanScanJournal::Entry> many;
    for (int i = 2; i < 2000; ++i)
        many.append(entry(i, now - 1000));
    journal.record(many);
    // The same files scanned again and again only replace their entries.
    for (int round = 0; round < 3; ++round)
        journal.record(many);
    journal.flush();

    CleanScanJournal again(folder());
    again.setMaxEntries(1500);
    ASSERT_TRUE(again.load());
    const QList<CleanScanJournal::Entry> live = again.entries();
    ASSERT_EQ(live.size(), 1500);
    EXPECT_EQ(live.first().path, entry(500).path);
    EXPECT_EQ(live.last().path, entry(1999).path);
    EXPECT_LE(readAll(again.filePath()).count('\n'), 3000);
}
