#include "platform/SystemLog.h"

#include <QSemaphore>
#include <QDeadlineTimer>
#include <QThread>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

namespace {

// A test's log capture lives on its stack: once it has put the old sink back
// and is gone, no worker thread may still be writing into it.
TEST(SystemLogTest, PuttingAnotherSinkInPlaceWaitsForTheLineBeingWrittenToTheOldOne)
{
    QSemaphore entered;
    QSemaphore finish;
    std::atomic_bool written{false};
    const SystemLog::Sink previous = SystemLog::setSink([&](const QString &) {
        entered.release();
        finish.acquire();
        written = true;
    });
    std::unique_ptr<QThread> writer(QThread::create([] { SystemLog::log(QStringLiteral("a line")); }));
    writer->start();
    entered.acquire();

    bool writtenWhenReplaced = false;
    std::unique_ptr<QThread> replacer(QThread::create([&] {
        SystemLog::setSink(previous);
        writtenWhenReplaced = written;
    }));
    replacer->start();
    // Room to come back early, as it did while the old sink could still be running.
    replacer->wait(QDeadlineTimer(300));
    finish.release();
    writer->wait();
    replacer->wait();
    EXPECT_TRUE(writtenWhenReplaced);
}

} // namespace
