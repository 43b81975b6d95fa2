#include "Tarnlib/Tarnlib/QXWorkerThread.h"

#include "ProcessState.h"

#include <QCoreApplication>
#include <QMutexLocker>
#include <QSemaphore>
#include <QSet>
#include <QTest>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <optional>

namespace {

constexpr int waitLimit = 30000;

// Runs one child per request and keeps what its handlers were given.
class RecordingWorker : public QXWorkerThread
{
public:
    using QXWorkerThread::reportToMain;
    using QXWorkerThread::reportToMainAndWait;
    using QXWorkerThread::RunResult;

    struct Seen
    {
        std::optional<RunResult> result;
        QByteArray output, errors;
        QSet<QThread *> handlerThreads;
        int emptyChunks = 0;
    };

    RecordingWorker() { start(); }
    ~RecordingWorker() override { stopThread(); }

    void run(const QString &program, const QStringList &arguments = {})
    {
        perform([this, program, arguments] {
            const RunResult result = runChild(program, arguments);
            QMutexLocker locker(&_lock);
            _seen.result = result;
        });
    }
    void runShell(const QString &command) { run("/bin/sh", {"-c", command}); }
    // Waits for the run to end and answers what it saw.
    Seen finished() const
    {
        EXPECT_TRUE(QTest::qWaitFor([&] { return seen().result.has_value(); }, waitLimit));
        return seen();
    }
    Seen seen() const
    {
        QMutexLocker locker(&_lock);
        return _seen;
    }
    // The first line of output of a child started with "echo $$; exec ...".
    qint64 announcedPid() const
    {
        const QByteArray output = seen().output;
        return output.contains('\n') ? output.left(output.indexOf('\n')).toLongLong() : 0;
    }

protected:
    void notifiedForStdOutput(const QByteArray &chunk) override { note(_seen.output, chunk); }
    void notifiedForStdError(const QByteArray &chunk) override { note(_seen.errors, chunk); }

private:
    void note(QByteArray &into, const QByteArray &chunk)
    {
        QMutexLocker locker(&_lock);
        into += chunk;
        _seen.handlerThreads.insert(QThread::currentThread());
        _seen.emptyChunks += chunk.isEmpty() ? 1 : 0;
    }

    mutable QMutex _lock;
    Seen _seen;
};

} // namespace

TEST(QXWorkerThreadTest, EveryByteOfBothPipesReachesTheHandlersOnTheWorkersOwnThread)
{
    // Far more than a pipe holds on either stream: a pipe left unread would
    // stop the child for good.
    RecordingWorker worker;
    worker.runShell("head -c 1000000 /dev/zero | tr '\\0' o; head -c 1000000 /dev/zero | tr '\\0' e >&2; printf last");

    const RecordingWorker::Seen seen = worker.finished();
    ASSERT_TRUE(seen.result.has_value());
    EXPECT_TRUE(seen.result->started);
    EXPECT_EQ(seen.result->status, 0);
    EXPECT_TRUE(seen.output == QByteArray(1000000, 'o') + "last");
    EXPECT_TRUE(seen.errors == QByteArray(1000000, 'e'));
    EXPECT_EQ(seen.handlerThreads, QSet<QThread *>{worker.thread()});
    EXPECT_NE(worker.thread(), QCoreApplication::instance()->thread());
    EXPECT_EQ(seen.emptyChunks, 0);
    EXPECT_FALSE(worker.hasChild());
}

TEST(QXWorkerThreadTest, ReportsRunOnTheMainThreadAndTheWaitingOneHoldsTheWorker)
{
    RecordingWorker worker;
    std::atomic<QThread *> queuedRanOn = nullptr, waitedRanOn = nullptr;
    std::atomic<bool> doneWhenWorkerWentOn = false, workerDone = false;
    worker.perform([&] {
        worker.reportToMain([&] { queuedRanOn = QThread::currentThread(); });
        std::atomic<bool> done = false;
        worker.reportToMainAndWait([&] {
            waitedRanOn = QThread::currentThread();
            done = true;
        });
        doneWhenWorkerWentOn = done.load();
        workerDone = true;
    });

    EXPECT_TRUE(QTest::qWaitFor([&] { return workerDone.load(); }, waitLimit));
    EXPECT_TRUE(doneWhenWorkerWentOn.load());
    EXPECT_EQ(queuedRanOn.load(), QCoreApplication::instance()->thread());
    EXPECT_EQ(waitedRanOn.load(), QCoreApplication::instance()->thread());

    // On the main thread itself the waiting report runs at once instead of
    // waiting for its own event loop.
    bool ranAtOnce = false;
    worker.reportToMainAndWait([&] { ranAtOnce = true; });
    EXPECT_TRUE(ranAtOnce);
}

TEST(QXWorkerThreadTest, ReportsStillOnTheirWayAreDroppedOnceReportingStopped)
{
    RecordingWorker worker;
    auto ran = std::make_shared<std::atomic<int>>(0);
    QSemaphore posted;
    worker.perform([&worker, ran, &posted] {
        worker.reportToMain([ran] { ++*ran; });
        posted.release();
    });
    // The main thread takes no events until reporting has stopped.
    posted.acquire();
    worker.stopReporting();

    auto returned = std::make_shared<std::atomic<bool>>(false);
    worker.perform([&worker, ran, returned] {
        worker.reportToMainAndWait([ran] { ++*ran; });
        *returned = true;
    });
    EXPECT_TRUE(QTest::qWaitFor([&] { return returned->load(); }, waitLimit));
    QCoreApplication::processEvents();
    EXPECT_EQ(ran->load(), 0);
}

TEST(QXWorkerThreadTest, DestroyingAWorkerDuringARunEndsItsChild)
{
    auto worker = std::make_unique<RecordingWorker>();
    worker->runShell("echo $$; exec sleep 60");
    ASSERT_TRUE(QTest::qWaitFor([&] { return worker->announcedPid() > 0 && worker->hasChild(); }, waitLimit));
    const qint64 pid = worker->announcedPid();

    worker.reset();
    // The run reaps its child before the thread ends.
    EXPECT_EQ(processState(pid), '\0');
}
