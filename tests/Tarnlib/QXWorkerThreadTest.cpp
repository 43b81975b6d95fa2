#include "Tarnlib/Tarnlib/QXWorkerThread.h"

#include "ProcessState.h"
#include "tests/support/LogCapture.h"

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

    explicit RecordingWorker(bool recordErrors = true)
        : _recordErrors(recordErrors)
    {
    }
    ~RecordingWorker() override { stopThread(); }

    void run(const QString &program, const QStringList &arguments)
    {
        perform([this, program, arguments] {
            const RunResult result = runChild(program, arguments);
            QMutexLocker locker(&_lock);
            _result = result;
        });
    }
    void runShell(const QString &command) { run(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), command}); }

    std::optional<RunResult> result() const
    {
        QMutexLocker locker(&_lock);
        return _result;
    }
    QByteArray output() const
    {
        QMutexLocker locker(&_lock);
        return _output;
    }
    QByteArray errors() const
    {
        QMutexLocker locker(&_lock);
        return _errors;
    }
    QSet<QThread *> handlerThreads() const
    {
        QMutexLocker locker(&_lock);
        return _handlerThreads;
    }
    int emptyChunks() const
    {
        QMutexLocker locker(&_lock);
        return _emptyChunks;
    }

protected:
    void notifiedForStdOutput(const QByteArray &chunk) override
    {
        QMutexLocker locker(&_lock);
        _output += chunk;
        note(chunk);
    }
    void notifiedForStdError(const QByteArray &chunk) override
    {
        if (!_recordErrors) {
            QXWorkerThread::notifiedForStdError(chunk);
            return;
        }
        QMutexLocker locker(&_lock);
        _errors += chunk;
        note(chunk);
    }

private:
    void note(const QByteArray &chunk)
    {
        _handlerThreads.insert(QThread::currentThread());
        _emptyChunks += chunk.isEmpty() ? 1 : 0;
    }

    const bool _recordErrors;
    mutable QMutex _lock;
    std::optional<RunResult> _result;
    QByteArray _output;
    QByteArray _errors;
    QSet<QThread *> _handlerThreads;
    int _emptyChunks = 0;
};

// The first line of output of a child started with "echo $$; exec ...".
qint64 announcedPid(const RecordingWorker &worker)
{
    const QByteArray output = worker.output();
    return output.contains('\n') ? output.left(output.indexOf('\n')).toLongLong() : 0;
}

} // namespace

TEST(QXWorkerThreadTest, PerformRunsTheRequestOnTheWorkersOwnThread)
{
    RecordingWorker worker;
    worker.start();
    std::atomic<QThread *> ranOn = nullptr;
    worker.perform([&] { ranOn = QThread::currentThread(); });

    EXPECT_TRUE(QTest::qWaitFor([&] { return ranOn.load() != nullptr; }, waitLimit));
    EXPECT_EQ(ranOn.load(), worker.thread());
    EXPECT_NE(ranOn.load(), QCoreApplication::instance()->thread());
}

TEST(QXWorkerThreadTest, EveryByteOfBothPipesReachesTheHandlersOnTheWorkerThread)
{
    // Far more than a pipe holds on either stream: a pipe left unread would
    // stop the child for good.
    RecordingWorker worker;
    worker.start();
    worker.runShell(QStringLiteral("head -c 1000000 /dev/zero | tr '\\0' o; "
                                   "head -c 1000000 /dev/zero | tr '\\0' e >&2; "
                                   "printf last"));

    ASSERT_TRUE(QTest::qWaitFor([&] { return worker.result().has_value(); }, waitLimit));
    EXPECT_TRUE(worker.result()->started);
    EXPECT_EQ(worker.result()->status, 0);
    EXPECT_EQ(worker.output(), QByteArray(1000000, 'o') + "last");
    EXPECT_EQ(worker.errors(), QByteArray(1000000, 'e'));
    EXPECT_EQ(worker.handlerThreads(), QSet<QThread *>{worker.thread()});
    EXPECT_EQ(worker.emptyChunks(), 0);
    EXPECT_FALSE(worker.hasChild());
}

TEST(QXWorkerThreadTest, RunAnswersTheExitCodeOrTheSignalThatEndedTheChild)
{
    RecordingWorker exits;
    exits.start();
    exits.runShell(QStringLiteral("exit 3"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return exits.result().has_value(); }, waitLimit));
    EXPECT_TRUE(exits.result()->started);
    EXPECT_EQ(exits.result()->status, 3);
    EXPECT_FALSE(exits.result()->crashed);

    RecordingWorker killed;
    killed.start();
    killed.runShell(QStringLiteral("kill -9 $$"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return killed.result().has_value(); }, waitLimit));
    EXPECT_TRUE(killed.result()->started);
    EXPECT_EQ(killed.result()->status, SIGKILL);
    EXPECT_TRUE(killed.result()->crashed);
}

TEST(QXWorkerThreadTest, ProgramThatCannotStartEndsTheRunWithItsReason)
{
    RecordingWorker worker;
    worker.start();
    worker.run(QStringLiteral("/nonexistent/korvane/bin/clamdscan"), {});

    ASSERT_TRUE(QTest::qWaitFor([&] { return worker.result().has_value(); }, waitLimit));
    EXPECT_FALSE(worker.result()->started);
    EXPECT_TRUE(worker.result()->error.contains(QLatin1String("No such file or directory")))
        << qPrintable(worker.result()->error);
    EXPECT_FALSE(worker.hasChild());
}

TEST(QXWorkerThreadTest, StandardErrorGoesToTheSystemLogByDefault)
{
    LogCapture log;
    RecordingWorker worker(false);
    worker.start();
    worker.runShell(QStringLiteral("echo 'not a virus' >&2"));

    ASSERT_TRUE(QTest::qWaitFor([&] { return worker.result().has_value(); }, waitLimit));
    EXPECT_TRUE(log.contains(QStringLiteral("error:not a virus\n"))) << qPrintable(log.lines().join('|'));
}

TEST(QXWorkerThreadTest, SignalsWithoutAChildAnswerNo)
{
    RecordingWorker worker;
    worker.start();
    EXPECT_FALSE(worker.hasChild());
    EXPECT_FALSE(worker.suspendChild());
    EXPECT_FALSE(worker.resumeChild());
    EXPECT_FALSE(worker.terminateChild());
}

TEST(QXWorkerThreadTest, SuspendResumeAndTerminateReachTheRunningChild)
{
    RecordingWorker worker;
    worker.start();
    worker.runShell(QStringLiteral("echo $$; exec sleep 60"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return announcedPid(worker) > 0 && worker.hasChild(); }, waitLimit));
    const qint64 pid = announcedPid(worker);

    EXPECT_TRUE(worker.suspendChild());
    EXPECT_TRUE(QTest::qWaitFor([&] { return processState(pid) == 'T'; }, waitLimit));
    EXPECT_TRUE(worker.resumeChild());
    EXPECT_TRUE(QTest::qWaitFor([&] { return processState(pid) != 'T'; }, waitLimit));
    EXPECT_FALSE(worker.result().has_value());

    EXPECT_TRUE(worker.terminateChild());
    ASSERT_TRUE(QTest::qWaitFor([&] { return worker.result().has_value(); }, waitLimit));
    EXPECT_EQ(worker.result()->status, SIGTERM);
    EXPECT_TRUE(worker.result()->crashed);
    EXPECT_FALSE(worker.hasChild());
    EXPECT_FALSE(worker.terminateChild());
}

TEST(QXWorkerThreadTest, ReportsRunOnTheMainThreadAndTheWaitingOneHoldsTheWorker)
{
    RecordingWorker worker;
    worker.start();
    QThread *const mainThread = QCoreApplication::instance()->thread();
    std::atomic<QThread *> queuedRanOn = nullptr;
    std::atomic<QThread *> waitedRanOn = nullptr;
    std::atomic<bool> doneWhenWorkerWentOn = false;
    std::atomic<bool> workerDone = false;

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
    EXPECT_EQ(queuedRanOn.load(), mainThread);
    EXPECT_EQ(waitedRanOn.load(), mainThread);

    // On the main thread itself the waiting report runs at once instead of
    // waiting for its own event loop.
    bool ranAtOnce = false;
    worker.reportToMainAndWait([&] { ranAtOnce = true; });
    EXPECT_TRUE(ranAtOnce);
}

TEST(QXWorkerThreadTest, ReportsStillOnTheirWayAreDroppedOnceReportingStopped)
{
    RecordingWorker worker;
    worker.start();
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
    worker->start();
    worker->runShell(QStringLiteral("echo $$; exec sleep 60"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return announcedPid(*worker) > 0 && worker->hasChild(); }, waitLimit));
    const qint64 pid = announcedPid(*worker);

    worker.reset();
    // The run reaps its child before the thread ends.
    EXPECT_EQ(processState(pid), '\0');
}
