#include "RealEngineAgentFixture.h"

#include "platform/InotifyWatcher.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QPointer>
#include <QScopeGuard>
#include <QTest>

#include <fcntl.h>
#include <unistd.h>

namespace {

// The whole agent against the real daemon and real folder events, for the
// ways a file written into a watched folder could escape the scanner.
class WatcherEndToEndTest : public RealEngineAgentFixture
{
protected:
    void SetUp() override
    {
        FileSystemWatcher::setFactory([this](QObject *parent) {
            auto *made = new InotifyWatcher(parent);
            watcher = made;
            return made;
        });
        // The second folder is not there at the start.
        launchWatching({folder(QStringLiteral("~/Later/Inbox"))});
    }

    void TearDown() override
    {
        AgentFixture::TearDown();
        FileSystemWatcher::setFactory({});
    }

    // The agent's current watcher.
    QPointer<InotifyWatcher> watcher;
};

TEST_F(WatcherEndToEndTest, FileRemovedAndWrittenAgainWithinOneBatchIsScanned)
{
    const QString file = write("again.com", "harmless at first");
    agent->events()->flushEventStreamSync();
    ASSERT_TRUE(waitUntilIdle());
    ASSERT_TRUE(QFile::remove(file));
    QTest::qWait(500);
    write("again.com");

    EXPECT_TRUE(waitUntilListed({file})) << listedPaths().join(' ').toStdString();
}

TEST_F(WatcherEndToEndTest, AfterTheKernelQueueOverflowedWhatChangedMeanwhileIsScannedAndNothingOlder)
{
    // Infected but older than the watching: a scan of the whole folder would list them.
    agent->stopWatching(nullptr);
    const QStringList older{write("before.com"), write("older/before.com")};
    write("moved/.keep", "");
    QTest::qWait(2500);
    agent->startWatching(nullptr);
    ASSERT_FALSE(watcher.isNull());
    agent->events()->flushEventStreamSync();
    ASSERT_TRUE(waitUntilIdle());
    QFile limit(QStringLiteral("/proc/sys/fs/inotify/max_queued_events"));
    ASSERT_TRUE(limit.open(QIODevice::ReadOnly));
    const int queueLength = limit.readAll().trimmed().toInt();
    ASSERT_GT(queueLength, 0);

    watcher->holdReading(true);
    // Each new file queues at least two events, so these alone overflow the queue.
    for (int i = 0; i < queueLength / 2 + 100; ++i)
        write(QStringLiteral("clean-%1.txt").arg(i), "clean");
    const QStringList lost{write("top.com"), write("older/inside.com"), write("newer/inside.com"),
                           write("moved/inside.com"), write("backdated.com")};
    // An unpacked archive keeps the times of its files.
    const QDateTime yearAgo = QDateTime::currentDateTime().addYears(-1);
    QFile backdated(lost.last());
    ASSERT_TRUE(backdated.open(QIODevice::ReadWrite));
    ASSERT_TRUE(backdated.setFileTime(yearAgo, QFileDevice::FileModificationTime));
    backdated.close();
    ASSERT_TRUE(QDir().rename(home.filePath("Watched/moved"), home.filePath("Watched/renamed")));
    watcher->holdReading(false);

    QStringList found = lost;
    found.replace(3, home.filePath("Watched/renamed/inside.com"));
    EXPECT_TRUE(waitUntilListed(found)) << listedPaths().join(' ').toStdString();
    // The folders made or renamed while events were lost are watched under their names since.
    EXPECT_TRUE(waitUntilListed({write("newer/later.com"), write("renamed/later.com")}))
        << listedPaths().join(' ').toStdString();
    ASSERT_TRUE(waitUntilIdle());
    for (const QString &path : older)
        EXPECT_FALSE(listedPaths().contains(path)) << path.toStdString();
}

TEST_F(WatcherEndToEndTest, FolderThatIsMissingOrRemovedIsWatchedOnceItIsThereAndWhatItHoldsIsScanned)
{
    // Made elsewhere and moved into place whole, with an infected file already in it.
    const QString inbox = home.filePath("Later/Inbox");
    home.writeFile("Elsewhere/early.com", EngineFixture::eicarContents());
    ASSERT_TRUE(QDir().mkpath(home.filePath("Later")));
    ASSERT_TRUE(QDir().rename(home.filePath("Elsewhere"), inbox));
    EXPECT_TRUE(waitUntilListed({inbox + "/early.com"})) << listedPaths().join(' ').toStdString();
    EXPECT_TRUE(waitUntilListed({home.writeFile("Later/Inbox/late.com", EngineFixture::eicarContents())}));

    ASSERT_TRUE(QDir(home.filePath("Watched")).removeRecursively());
    const QString again = write("again.com");
    EXPECT_TRUE(waitUntilListed({again})) << listedPaths().join(' ').toStdString();
    EXPECT_TRUE(waitUntilListed({write("deeper/later.com")})) << listedPaths().join(' ').toStdString();
}

TEST_F(WatcherEndToEndTest, InfectedFilesWrittenRightAfterWatchingRestartsAreScannedThoughTheirFoldersWereNotWatchedYet)
{
    // Enough folders that the walk after the restart is still going when the files land.
    for (int i = 0; i < 40; ++i)
        for (int j = 0; j < 40; ++j)
            QDir().mkpath(home.filePath(QStringLiteral("Watched/tree/%1/%2").arg(i).arg(j)));
    // The walk takes the last listed folder first, so the first listed are reached last.
    const auto listed = [](const QString &path) {
        return QDir(path).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    };
    const QString tree = home.filePath("Watched/tree");
    QStringList reachedLast;
    for (const QString &middle : listed(tree).mid(0, 2))
        for (const QString &leaf : listed(tree + '/' + middle).mid(0, 4))
            reachedLast.append(tree + '/' + middle + '/' + leaf + "/infected.com");
    ASSERT_TRUE(waitUntilIdle());

    agent->restartWatching(nullptr);
    for (const QString &path : std::as_const(reachedLast)) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(EngineFixture::eicarContents());
    }

    EXPECT_TRUE(waitUntilListed(reachedLast)) << listedPaths().join(' ').toStdString();
}

TEST_F(WatcherEndToEndTest, InfectedFileWhoseNameIsNotUtf8IsScannedAndListed)
{
    // Latin-1 names from old archives and network shares are not UTF-8.
    const QByteArray raw = QFile::encodeName(home.filePath("Watched/caf")) + "\xe9.com";
    QFile file;
    const int fd = ::open(raw.constData(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    ASSERT_GE(fd, 0);
    // The temporary home cannot remove what it cannot name.
    const auto removeIt = qScopeGuard([&] { ::unlink(raw.constData()); });
    ASSERT_TRUE(file.open(fd, QIODevice::WriteOnly, QFile::AutoCloseHandle));
    file.write(EngineFixture::eicarContents());
    file.close();

    EXPECT_TRUE(waitUntilListed({QFile::decodeName(raw)})) << listedPaths().join(' ').toStdString();
}

} // namespace
