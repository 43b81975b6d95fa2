#include "RecordingUtilsDelegate.h"
#include "Tarnlib/Tarnlib/QXFileCounter.h"
#include "Tarnlib/Tarnlib/QXFileCounterDelegate.h"
#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/PropertyList.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"

#include <QDir>
#include <QFile>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <gtest/gtest.h>

#include <functional>

namespace {

// The real coordinator, holding each saved search's expansion until the test lets it go.
class HeldUtils : public QXUtils
{
public:
    using QXUtils::QXUtils;
    ~HeldUtils() override { release.release(100); }
    QStringList obtainFilesForSavedSearchAtPath(const QString &path, bool *whole) override
    {
        release.acquire();
        return QXUtils::obtainFilesForSavedSearchAtPath(path, whole);
    }
    QSemaphore release;
};

class CountingDelegate : public QXFileCounterDelegate
{
public:
    QList<qint64> totals;
    QMap<QString, QStringList> savedSearches;
    QList<QXExclusionPredicate> excludes;
    QStringList rootPrefixes{"/Volumes", "/dev", "/net"};
    bool quarantine = false;
    QString quarantineFolder;
    std::function<void()> onExpand;
    int rootPrefixQuestions = 0;

    void fileCounterReturned(qint64 count) override { totals << count; }
    QStringList obtainFilesForSavedSearchAtPath(const QString &path, bool *) override
    {
        if (onExpand)
            onExpand();
        return savedSearches.value(path);
    }
    bool quarantineFiles() const override { return quarantine; }
    QList<QXExclusionPredicate> counterExcludes() const override { return excludes; }
    QStringList exclusionStringsForRootVolScan() const override
    {
        ++const_cast<CountingDelegate *>(this)->rootPrefixQuestions;
        return rootPrefixes;
    }
    QStringList pathsToScan() const override { return {}; }
    QString quarantineLocation() const override { return quarantineFolder; }
};

// Tree holds a, b, c, Held/h and Sub/d, Sub/e: six files.
class QXFileCounterTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char *file : {"single.txt", "Tree/a", "Tree/b", "Tree/c", "Tree/Held/h", "Tree/Sub/d", "Tree/Sub/e",
                                 "Found/1", "Found/2", "Found/3", "Found/4"})
            home.writeFile(file, "x");
        QDir().mkpath(home.filePath("Empty"));
    }

    // Runs the count on a thread of its own, as the pool would, and answers
    // what reached the delegate on this thread.
    QList<qint64> run(QXFileCounter &counter)
    {
        std::unique_ptr<QThread> thread(QThread::create([&] { counter.start(); }));
        thread->start();
        EXPECT_TRUE(QTest::qWaitFor([&] { return thread->isFinished(); }, 20000));
        QCoreApplication::processEvents();
        return delegate.totals;
    }

    QList<qint64> count(const QStringList &paths)
    {
        QXFileCounter counter(&delegate, &context);
        counter.setThePathsToScan(paths);
        return run(counter);
    }

    FreshPreferences home;
    LogCapture log;
    CountingDelegate delegate;
    QObject context;
};

// The progress bar's total disagreed with what the scan then visited.
TEST_F(QXFileCounterTest, CountsTheFilesAScanWouldVisit)
{
    const QString tree = home.filePath("Tree");
    const QXExclusionPredicate subfolderRule = QXExclusionPredicate::containing("/tree/sub");
    const QXExclusionPredicate fileRule = QXExclusionPredicate::matching(".*/Tree/a");
    const QStringList four{home.filePath("Found/1"), home.filePath("Found/2"), home.filePath("Found/3"),
                           home.filePath("Found/4")};
    const struct
    {
        const char *name;
        QStringList paths;
        QList<QXExclusionPredicate> excludes;
        bool quarantine;
        qint64 expected;
    } rows[] = {
        {"one regular file", {home.filePath("single.txt")}, {}, false, 1},
        {"a path that does not exist", {home.filePath("gone")}, {}, false, 1},
        {"an empty folder", {home.filePath("Empty")}, {}, false, 0},
        {"a folder tree, folders not counted", {tree}, {}, false, 6},
        {"several paths add up", {home.filePath("single.txt"), tree, home.filePath("Empty")}, {}, false, 7},
        {"a predicate on a subfolder prunes it", {tree}, {subfolderRule}, false, 4},
        {"a predicate on a file still counts it", {tree}, {fileRule}, false, 6},
        {"quarantine on skips its folder", {tree}, {}, true, 5},
        {"a saved search counts what it finds and itself", {"/x/Four.savedSearch"}, {}, false, 5},
        {"a saved search finding a folder counts its files", {"/x/Tree.savedSearch"}, {}, false, 7},
        {"a saved search finding nothing counts itself", {"/x/None.savedSearch"}, {}, false, 1},
    };
    delegate.savedSearches = {{"/x/Four.savedSearch", four}, {"/x/Tree.savedSearch", {tree}}};
    delegate.quarantineFolder = tree + "/Held";
    for (const auto &row : rows) {
        delegate.totals.clear();
        delegate.excludes = row.excludes;
        delegate.quarantine = row.quarantine;
        EXPECT_EQ(count(row.paths), QList<qint64>{row.expected}) << row.name;
    }
}

TEST_F(QXFileCounterTest, CountingTheRootVolumeSkipsTheFoldersOfItsPrefixes)
{
    // Every top-level folder is a skipped prefix, so only what "/" itself
    // holds is counted; links and files count, folders do not.
    delegate.rootPrefixes.clear();
    int expected = 0;
    const QFileInfoList top =
        QDir("/").entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo &entry : top) {
        delegate.rootPrefixes << entry.absoluteFilePath();
        if (!entry.isDir() || entry.isSymLink())
            ++expected;
    }
    QXFileCounter counter(&delegate, &context);
    EXPECT_EQ(counter.countFilesForPath("/", {}, false, {}), expected);
    EXPECT_TRUE(log.contains("skipping /dev"));
    EXPECT_GE(delegate.rootPrefixQuestions, top.size());

    // Outside "/" the prefixes do not apply.
    delegate.rootPrefixes = {home.filePath("Tree")};
    EXPECT_EQ(counter.countFilesForPath(home.filePath("Tree"), {}, false, {}), 6);
}

TEST_F(QXFileCounterTest, CancellingEndsEachPathAfterItsFirstEntryAndStillReports)
{
    const QString tree = home.filePath("Tree");
    QXFileCounter counter(&delegate, &context);
    // Stop arrives while the saved search is being expanded.
    delegate.onExpand = [&] { counter.cancel(); };
    delegate.savedSearches = {{"/x/Four.savedSearch", {home.filePath("Found")}}};
    counter.setThePathsToScan({"/x/Four.savedSearch", tree, home.filePath("single.txt")});
    // Found: its first entry, a file; itself; Tree: its first entry, the folder Held; single.txt.
    EXPECT_EQ(run(counter), QList<qint64>{1 + 1 + 0 + 1});

    QXFileCounter early(&delegate, &context);
    early.setThePathsToScan({tree});
    early.cancel();
    delegate.totals.clear();
    EXPECT_TRUE(run(early).isEmpty());
}

TEST_F(QXFileCounterTest, CoordinatorReplacesARunningCountAndStopCancelsIt)
{
    const QVariantList found{home.filePath("Found")};
    const QVariantMap search{{"RawQuery", R"(kMDItemFSName == "*")"},
                             {"SearchCriteria", QVariantMap{{"CurrentFolderPath", found}}}};
    const QString held = home.writeFile("Held.savedSearch", PropertyList::toXml(search));
    RecordingUtilsDelegate owner;
    HeldUtils utils(&owner, {});
    utils.countFiles({held, home.filePath("Tree")});
    QXFileCounter *first = utils.theFileCounter();
    ASSERT_NE(first, nullptr);
    utils.countFiles({home.filePath("single.txt")});
    EXPECT_NE(utils.theFileCounter(), first);
    ASSERT_TRUE(QTest::qWaitFor([&] { return owner.count("fileCounterReturned:1") == 1; }, 10000));
    EXPECT_EQ(utils.theFileCounter(), nullptr);

    utils.setScanning(true);
    utils.stop();
    utils.release.release();
    // Four found, the search itself, and of the cancelled tree only its first entry, a folder.
    ASSERT_TRUE(QTest::qWaitFor([&] { return owner.calls.filter("fileCounterReturned").size() == 2; }, 10000));
    EXPECT_EQ(owner.calls.filter("fileCounterReturned"),
              (QStringList{"fileCounterReturned:1", "fileCounterReturned:5"}));
    EXPECT_EQ(utils.theFileCounter(), nullptr);
}

} // namespace
