#include "app/Dispatcher.h"
#include "app/DispatcherDelegate.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

namespace {

// Takes the batch the way the controller does, and remembers every question.
class RecordingDelegate : public DispatcherDelegate
{
public:
    bool ready = true;
    int questions = 0;
    QList<QStringList> batches;
    Dispatcher *dispatcher = nullptr;

    bool readyToScan() override
    {
        ++questions;
        return ready;
    }
    void startScan() override { batches.append(dispatcher->grabItemsToScan()); }
    QXUtils *utils() override { return nullptr; }
};

class DispatcherTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        dispatcher.dispatchTimer()->stop(); // the tests tick by hand
        delegate.dispatcher = &dispatcher;
    }

    QString write(const QString &name, const QByteArray &bytes, QIODevice::OpenMode mode = QIODevice::WriteOnly)
    {
        QFile file(dir.filePath(name));
        file.open(mode);
        file.write(bytes);
        return file.fileName();
    }

    QTemporaryDir dir;
    RecordingDelegate delegate;
    Dispatcher dispatcher{&delegate};
};

TEST_F(DispatcherTest, TickWithEmptyListsAsksTheDelegateNothing)
{
    dispatcher.updateSizesInWaitingList();
    EXPECT_EQ(delegate.questions, 0);
    EXPECT_TRUE(delegate.batches.isEmpty());
}

TEST_F(DispatcherTest, UnchangedPathIsHandedOutInTheTickThatFindsItStable)
{
    const QString path = write("a", "hello");
    dispatcher.addToWaitingList(path);
    EXPECT_EQ(dispatcher.waitingList().value(path), 5u);

    dispatcher.updateSizesInWaitingList();

    ASSERT_EQ(delegate.batches.size(), 1);
    EXPECT_EQ(delegate.batches.first(), QStringList{path});
    EXPECT_TRUE(dispatcher.waitingList().isEmpty());
    EXPECT_TRUE(dispatcher.readyList().isEmpty());
}

TEST_F(DispatcherTest, FileThatGrowsAtEveryTickNeverBecomesReady)
{
    const QString path = write("growing", "x");
    dispatcher.addToWaitingList(path);
    for (int tick = 0; tick < 5; ++tick) {
        write("growing", "more", QIODevice::Append);
        dispatcher.updateSizesInWaitingList();
    }
    EXPECT_TRUE(delegate.batches.isEmpty());
    EXPECT_EQ(dispatcher.waitingList().value(path), 21u);

    dispatcher.updateSizesInWaitingList();
    ASSERT_EQ(delegate.batches.size(), 1);
}

TEST_F(DispatcherTest, ReadyPathsAccumulateWhileTheDelegateIsBusyAndLeaveAsOneBatch)
{
    delegate.ready = false;
    const QString first = write("first", "1");
    dispatcher.addToWaitingList(first);
    dispatcher.updateSizesInWaitingList();
    const QString second = write("second", "22");
    dispatcher.addToWaitingList(second);
    dispatcher.updateSizesInWaitingList();
    dispatcher.updateSizesInWaitingList();

    EXPECT_EQ(delegate.questions, 3); // asked at every tick, not just the one that made paths ready
    EXPECT_TRUE(delegate.batches.isEmpty());

    delegate.ready = true;
    dispatcher.updateSizesInWaitingList();
    ASSERT_EQ(delegate.batches.size(), 1);
    EXPECT_EQ(delegate.batches.first(), (QStringList{first, second}));
}

TEST_F(DispatcherTest, PathChangedAgainBeforeHandOutIsTwiceInTheBatch)
{
    delegate.ready = false;
    const QString path = write("twice", "abc");
    dispatcher.addToWaitingList(path);
    dispatcher.updateSizesInWaitingList();
    write("twice", "abcdef");
    dispatcher.addToWaitingList(path);
    EXPECT_EQ(dispatcher.readyList(), QStringList{path});
    EXPECT_TRUE(dispatcher.waitingList().contains(path));

    dispatcher.updateSizesInWaitingList();
    delegate.ready = true;
    dispatcher.updateSizesInWaitingList();
    ASSERT_EQ(delegate.batches.size(), 1);
    EXPECT_EQ(delegate.batches.first(), (QStringList{path, path}));
}

TEST_F(DispatcherTest, RemovalForgetsThePathInBothListsAndIgnoresUnknownPaths)
{
    delegate.ready = false;
    const QString path = write("gone", "data");
    const QString other = write("other", "data");
    dispatcher.addToWaitingList(path);
    dispatcher.updateSizesInWaitingList();
    dispatcher.addToWaitingList(path);
    dispatcher.addToWaitingList(other);

    dispatcher.removeFromWaitingList(dir.filePath("never-added"));
    EXPECT_EQ(dispatcher.waitingList().size(), 2);

    dispatcher.removeFromWaitingList(path);
    EXPECT_TRUE(dispatcher.readyList().isEmpty());
    EXPECT_EQ(dispatcher.waitingList().keys(), QStringList{other});
}

TEST_F(DispatcherTest, FileDeletedWhileWaitingIsHandedOutWithSizeZero)
{
    const QString path = write("vanishing", "12345");
    dispatcher.addToWaitingList(path);
    QFile::remove(path);
    dispatcher.updateSizesInWaitingList();
    EXPECT_TRUE(delegate.batches.isEmpty());
    EXPECT_EQ(dispatcher.waitingList().value(path), 0u);
    dispatcher.updateSizesInWaitingList();
    ASSERT_EQ(delegate.batches.size(), 1);
    EXPECT_EQ(delegate.batches.first(), QStringList{path});
}

TEST_F(DispatcherTest, SymbolicLinkIsMeasuredItselfNotItsTarget)
{
    const QString target = write("target", QByteArray(1000, 'x'));
    const QString link = dir.filePath("link");
    ASSERT_TRUE(QFile::link(target, link));
    dispatcher.addToWaitingList(link);
    EXPECT_EQ(dispatcher.waitingList().value(link), quint64(target.toUtf8().size()));
}

TEST_F(DispatcherTest, GrabbingAnEmptyReadyListGivesAnEmptyBatch)
{
    EXPECT_TRUE(dispatcher.grabItemsToScan().isEmpty());
}

TEST_F(DispatcherTest, ClearingDropsWaitingAndReadyPaths)
{
    delegate.ready = false;
    dispatcher.addToWaitingList(write("a", "1"));
    dispatcher.updateSizesInWaitingList();
    dispatcher.addToWaitingList(write("b", "1"));
    dispatcher.removeAllItems();
    EXPECT_TRUE(dispatcher.waitingList().isEmpty());
    EXPECT_TRUE(dispatcher.readyList().isEmpty());
}

TEST(DispatcherTimerTest, TicksOnItsOwnOnceASecond)
{
    QTemporaryDir dir;
    RecordingDelegate delegate;
    Dispatcher dispatcher(&delegate);
    delegate.dispatcher = &dispatcher;
    EXPECT_TRUE(dispatcher.dispatchTimer()->isActive());
    EXPECT_EQ(dispatcher.dispatchTimer()->interval(), 1000);

    QFile file(dir.filePath("f"));
    file.open(QIODevice::WriteOnly);
    file.write("x");
    file.close();
    dispatcher.addToWaitingList(file.fileName());
    EXPECT_TRUE(QTest::qWaitFor([&] { return delegate.batches.size() == 1; }, 5000));
}

} // namespace
