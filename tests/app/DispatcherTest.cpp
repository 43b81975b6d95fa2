#include "app/Dispatcher.h"
#include "app/DispatcherDelegate.h"

#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

// Takes the batch the way the controller does, and counts every question.
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
    void tick() { dispatcher.updateSizesInWaitingList(); }

    QTemporaryDir dir;
    RecordingDelegate delegate;
    Dispatcher dispatcher{&delegate};
};

TEST_F(DispatcherTest, PathIsHandedOutInTheFirstTickThatFindsItsSizeUnchanged)
{
    const QString path = write("growing", "x");
    dispatcher.addToWaitingList(path);
    for (int i = 0; i < 5; ++i) {
        write("growing", "more", QIODevice::Append);
        tick();
    }
    EXPECT_TRUE(delegate.batches.isEmpty());
    EXPECT_EQ(dispatcher.waitingList().value(path), 21u);
    tick();
    EXPECT_EQ(delegate.batches, QList<QStringList>{{path}});
    EXPECT_TRUE(dispatcher.waitingList().isEmpty());
    EXPECT_TRUE(dispatcher.readyList().isEmpty());
}

TEST_F(DispatcherTest, ReadyPathsAccumulateWhileTheDelegateIsBusyEvenTwiceAndLeaveAsOneBatch)
{
    delegate.ready = false;
    const QString first = write("first", "1");
    dispatcher.addToWaitingList(first);
    tick();
    const QString second = write("second", "22");
    dispatcher.addToWaitingList(second);
    tick();
    tick();
    EXPECT_EQ(delegate.questions, 3); // asked at every tick, not just the one that made paths ready

    write("first", "changed");
    dispatcher.addToWaitingList(first);
    EXPECT_EQ(dispatcher.readyList(), (QStringList{first, second}));
    EXPECT_TRUE(dispatcher.waitingList().contains(first));
    tick();
    EXPECT_TRUE(delegate.batches.isEmpty());

    delegate.ready = true;
    tick();
    EXPECT_EQ(delegate.batches, QList<QStringList>{(QStringList{first, second, first})});
}

TEST_F(DispatcherTest, RemovalForgetsThePathInBothListsAndClearingForgetsEverythingSoTheNextTickAsksNothing)
{
    delegate.ready = false;
    const QString path = write("gone", "data");
    const QString other = write("other", "data");
    dispatcher.addToWaitingList(path);
    tick();
    dispatcher.addToWaitingList(path);
    dispatcher.addToWaitingList(other);

    dispatcher.removeFromWaitingList(dir.filePath("never-added"));
    EXPECT_EQ(dispatcher.waitingList().size(), 2);
    dispatcher.removeFromWaitingList(path);
    EXPECT_TRUE(dispatcher.readyList().isEmpty());
    EXPECT_EQ(dispatcher.waitingList().keys(), QStringList{other});

    tick(); // other is ready now
    dispatcher.addToWaitingList(path);
    dispatcher.removeAllItems();
    EXPECT_TRUE(dispatcher.waitingList().isEmpty());
    EXPECT_TRUE(dispatcher.grabItemsToScan().isEmpty());
    const int questions = delegate.questions;
    tick();
    EXPECT_EQ(delegate.questions, questions);
}

TEST_F(DispatcherTest, LinkIsMeasuredItselfAndAFileDeletedWhileWaitingIsHandedOutWithSizeZero)
{
    const QString target = write("target", QByteArray(1000, 'x'));
    const QString link = dir.filePath("link");
    ASSERT_TRUE(QFile::link(target, link));
    dispatcher.addToWaitingList(link);
    EXPECT_EQ(dispatcher.waitingList().value(link), quint64(target.toUtf8().size()));

    dispatcher.removeAllItems();
    const QString path = write("vanishing", "12345");
    dispatcher.addToWaitingList(path);
    QFile::remove(path);
    tick();
    EXPECT_TRUE(delegate.batches.isEmpty());
    EXPECT_EQ(dispatcher.waitingList().value(path), 0u);
    tick();
    EXPECT_EQ(delegate.batches, QList<QStringList>{{path}});
}

} // namespace
