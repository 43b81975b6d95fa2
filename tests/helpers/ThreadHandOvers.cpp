// thread_hand_overs MODE: hands data between two threads once, the way MODE
// names, and exits; built only with ThreadSanitizer, which reports or not.
//
//   queued      a queued call out and a blocking call back
//   connection  a signal connected after the thread started
//   pool        a function run on the thread pool
//   finished    the thread's work read once Qt says it has finished
//   racy        a write on the thread read with no hand-over at all
//   racy-child  the same, after the thread has started a child process

#include <QCoreApplication>
#include <QProcess>
#include <QThread>
#include <QThreadPool>

#include <atomic>
#include <cstdio>
#include <vector>

namespace {

// Relaxed, so that waiting on it orders nothing for ThreadSanitizer.
std::atomic_bool written{false};

void waitForWritten()
{
    while (!written.load(std::memory_order_relaxed))
        QThread::msleep(5);
}

class Ticker : public QObject
{
    Q_OBJECT
signals:
    void tick();
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString mode = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    QThread thread;
    QObject worker;
    worker.moveToThread(&thread);
    thread.start();
    std::vector<int> data(16, 1);
    int seen = 0;

    if (mode == QLatin1String("queued")) {
        QMetaObject::invokeMethod(
            &worker, [&data] { data[3] = 2; }, Qt::QueuedConnection);
        QMetaObject::invokeMethod(
            &worker, [&data, &seen] { seen = data[3]; }, Qt::BlockingQueuedConnection);
        data[3] = seen;
    } else if (mode == QLatin1String("connection")) {
        // The thread emits once the connection is made; only the connection orders the two.
        Ticker ticker;
        ticker.moveToThread(&thread);
        std::atomic_bool connected{false};
        QMetaObject::invokeMethod(
            &ticker,
            [&ticker, &connected] {
                while (!connected.load(std::memory_order_relaxed))
                    QThread::msleep(5);
                emit ticker.tick();
            },
            Qt::QueuedConnection);
        QObject::connect(&ticker, &Ticker::tick, &ticker, [&data, &seen] {
            seen = data[4];
            written = true;
        });
        connected.store(true, std::memory_order_relaxed);
        waitForWritten();
        thread.quit();
        thread.wait();
    } else if (mode == QLatin1String("pool")) {
        QThreadPool pool;
        data[5] = 4;
        pool.start([&data] {
            data[5] = data[5] + 1;
            written = true;
        });
        waitForWritten();
        pool.waitForDone();
    } else if (mode == QLatin1String("finished")) {
        QMetaObject::invokeMethod(
            &worker,
            [&data, &thread] {
                data[6] = 5;
                thread.quit();
            },
            Qt::QueuedConnection);
        while (!thread.isFinished())
            QThread::msleep(5);
        seen = data[6];
    } else if (mode == QLatin1String("racy") || mode == QLatin1String("racy-child")) {
        const bool child = mode == QLatin1String("racy-child");
        // The call is run only once the caller has let go of it: whichever
        // thread drops the last reference to a queued call sees what the call
        // did, and that alone would order the read after the write.
        std::atomic_bool posted{false};
        QMetaObject::invokeMethod(
            &worker,
            [&data, &posted, child] {
                while (!posted.load(std::memory_order_relaxed))
                    QThread::msleep(1);
                if (child) {
                    QProcess process;
                    process.start(QStringLiteral("true"));
                    process.waitForFinished();
                }
                data[7] = 6;
                written = true;
            },
            Qt::QueuedConnection);
        posted.store(true, std::memory_order_relaxed);
        waitForWritten();
        seen = data[7];
    } else {
        std::fprintf(stderr, "unknown mode\n");
        return 2;
    }
    thread.quit();
    thread.wait();
    std::printf("%d\n", seen);
    return 0;
}

#include "ThreadHandOvers.moc"
