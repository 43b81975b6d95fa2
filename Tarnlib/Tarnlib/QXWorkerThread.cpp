#include "QXWorkerThread.h"

#include "platform/SystemLog.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMutexLocker>
#include <QTimer>

#include <algorithm>
#include <csignal>
#include <vector>
#include <sys/types.h>

QXWorkerThread::QXWorkerThread(QObject *parent)
    : QObject(parent)
{}

QXWorkerThread::~QXWorkerThread()
{
    stopThread();
}

void QXWorkerThread::start()
{
    _thread.setObjectName(QString::fromLatin1(metaObject()->className()));
    moveToThread(&_thread);
    _thread.start();
}

void QXWorkerThread::perform(std::function<void()> fn)
{
    QMetaObject::invokeMethod(this, std::move(fn), Qt::QueuedConnection);
}

void QXWorkerThread::setChildPid(int child, qint64 pid)
{
    QMutexLocker locker(&_childLock);
    if (child < _childPids.size())
        _childPids[child] = pid;
}

bool QXWorkerThread::signalChild(int signal)
{
    // The lock keeps a pid from being cleared, and the child reaped and its
    // pid reused, between the test and the kill.
    QMutexLocker locker(&_childLock);
    bool delivered = false;
    for (const qint64 pid : std::as_const(_childPids)) {
        if (pid > 0 && ::kill(pid_t(pid), signal) == 0)
            delivered = true;
    }
    return delivered;
}

bool QXWorkerThread::suspendChild()
{
    const bool suspended = signalChild(SIGSTOP);
    if (suspended)
        _childSuspended = true;
    return suspended;
}

bool QXWorkerThread::resumeChild()
{
    const bool resumed = signalChild(SIGCONT);
    if (resumed)
        _childSuspended = false;
    return resumed;
}

bool QXWorkerThread::terminateChild()
{
    return signalChild(SIGTERM);
}

bool QXWorkerThread::hasChild() const
{
    QMutexLocker locker(&_childLock);
    return std::any_of(_childPids.cbegin(), _childPids.cend(), [](qint64 pid) { return pid > 0; });
}

QXWorkerThread::RunResult QXWorkerThread::runChild(const QString &program, const QStringList &arguments)
{
    return runChildren({Command{program, arguments}}).constFirst();
}

struct QXWorkerThread::Child
{
    QProcess process;
    // A child that hangs (a suspended daemon, an updater that never
    // returns) would hold its worker, and the agent with it, for ever.
    QTimer silence;
    RunResult result;
};

QList<QXWorkerThread::RunResult> QXWorkerThread::runChildren(const QList<Command> &commands)
{
    const int count = int(commands.size());
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < count; ++i)
        children.push_back(std::make_unique<Child>());
    {
        QMutexLocker locker(&_childLock);
        _childPids = QList<qint64>(count, 0);
    }
    QEventLoop loop;
    int running = count;
    _childSuspended = false;

    for (int i = 0; i < count; ++i) {
        watchChild(*children[size_t(i)], i, commands.at(i).program, [&running, &loop] {
            if (--running == 0)
                loop.quit();
        });
    }
    for (int i = 0; i < count; ++i)
        children[size_t(i)]->process.start(commands.at(i).program, commands.at(i).arguments);
    if (running > 0)
        loop.exec();

    QList<RunResult> results;
    for (int i = 0; i < count; ++i)
        results.append(collectChild(*children[size_t(i)], i));
    {
        QMutexLocker locker(&_childLock);
        _childPids.clear();
    }
    return results;
}

void QXWorkerThread::watchChild(Child &child, int index, const QString &program, std::function<void()> end)
{
    QProcess &process = child.process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    child.silence.setSingleShot(true);
    child.silence.setInterval(_silenceLimit);
    connect(&child.silence, &QTimer::timeout, &process, [this, &child, program] {
        // A child its owner suspended is quiet on purpose.
        if (_childSuspended) {
            child.silence.start();
            return;
        }
        child.result.silent = true;
        SystemLog::log(QStringLiteral("%1 gave no output for %2 s: ending it")
                           .arg(program)
                           .arg(std::chrono::duration_cast<std::chrono::seconds>(_silenceLimit).count()));
        child.process.terminate();
        // One that ignores the termination is killed.
        QTimer::singleShot(5000, &child.process, [&child] { child.process.kill(); });
    });

    // Every chunk is taken out of its pipe whether or not a subclass
    // cares, so that a child never blocks on a full pipe.
    connect(&process, &QProcess::readyReadStandardOutput, &process, [this, &child, index] {
        const QByteArray chunk = child.process.readAllStandardOutput();
        if (!chunk.isEmpty()) {
            if (!child.result.silent)
                child.silence.start();
            notifiedForChildOutput(index, chunk);
        }
    });
    connect(&process, &QProcess::readyReadStandardError, &process, [this, &child] {
        const QByteArray chunk = child.process.readAllStandardError();
        if (!chunk.isEmpty()) {
            if (!child.result.silent)
                child.silence.start();
            notifiedForStdError(chunk);
        }
    });
    connect(&process, &QProcess::started, &process, [this, &child, index] {
        setChildPid(index, child.process.processId());
        child.silence.start();
    });
    const auto ended = [this, &child, index, end] {
        setChildPid(index, 0);
        child.silence.stop();
        end();
    };
    connect(&process, &QProcess::finished, &process, [&child, ended](int exitCode, QProcess::ExitStatus exitStatus) {
        child.result.started = true;
        // For a child ended by a signal Qt gives the signal number as the code.
        child.result.status = exitCode;
        child.result.crashed = exitStatus == QProcess::CrashExit;
        ended();
    });
    // A program that cannot be started never sends finished.
    connect(&process, &QProcess::errorOccurred, &process, [&child, ended](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        child.result.started = false;
        child.result.error = child.process.errorString();
        ended();
    });
}

QXWorkerThread::RunResult QXWorkerThread::collectChild(Child &child, int index)
{
    if (child.process.state() != QProcess::NotRunning) {
        // Only stopThread() leaves the loop early; no child may outlive the run.
        setChildPid(index, 0);
        child.process.kill();
        child.process.waitForFinished(-1);
    }
    if (const QByteArray chunk = child.process.readAllStandardOutput(); !chunk.isEmpty())
        notifiedForChildOutput(index, chunk);
    if (const QByteArray chunk = child.process.readAllStandardError(); !chunk.isEmpty())
        notifiedForStdError(chunk);
    return child.result;
}

void QXWorkerThread::notifiedForStdOutput(const QByteArray &)
{}

void QXWorkerThread::notifiedForChildOutput(int, const QByteArray &chunk)
{
    notifiedForStdOutput(chunk);
}

void QXWorkerThread::notifiedForStdError(const QByteArray &chunk)
{
    SystemLog::log(QStringLiteral("error:") + QString::fromUtf8(chunk));
}

void QXWorkerThread::reportToMain(std::function<void()> fn)
{
    deliverToMain(std::move(fn), false);
}

void QXWorkerThread::reportToMainAndWait(std::function<void()> fn)
{
    deliverToMain(std::move(fn), true);
}

void QXWorkerThread::deliverToMain(std::function<void()> fn, bool wait)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app) {
        SystemLog::log(QStringLiteral("report dropped: no application"));
        return;
    }
    std::shared_ptr<std::atomic_bool> reporting = _reporting;
    auto gated = [reporting, fn = std::move(fn)] {
        if (*reporting)
            fn();
    };
    if (!wait)
        QMetaObject::invokeMethod(app, std::move(gated), Qt::QueuedConnection);
    // A blocking call from the main thread to itself would never return.
    else if (QThread::currentThread() == app->thread())
        gated();
    else
        QMetaObject::invokeMethod(app, std::move(gated), Qt::BlockingQueuedConnection);
}

bool QXWorkerThread::suspendUnlessPaused()
{
    QMutexLocker locker(&_pauseLock);
    return !_paused && suspendChild();
}

bool QXWorkerThread::resumeIfPaused()
{
    QMutexLocker locker(&_pauseLock);
    return _paused && resumeChild();
}

bool QXWorkerThread::togglePause()
{
    QMutexLocker locker(&_pauseLock);
    if (_paused) {
        if (resumeChild())
            _paused = false;
    } else if (suspendChild()) {
        _paused = true;
    }
    return _paused;
}

void QXWorkerThread::stopChild()
{
    QMutexLocker locker(&_pauseLock);
    if (!terminateChild())
        return;
    resumeChild();
    _paused = false;
}

bool QXWorkerThread::paused() const
{
    QMutexLocker locker(&_pauseLock);
    return _paused;
}

void QXWorkerThread::clearPaused()
{
    QMutexLocker locker(&_pauseLock);
    _paused = false;
}

void QXWorkerThread::stopReporting()
{
    *_reporting = false;
}

void QXWorkerThread::stopThread()
{
    stopReporting();
    if (!_thread.isRunning())
        return;
    signalChild(SIGKILL);
    _thread.quit();
    // A run that is ending may still wait for the main thread to take a report.
    QCoreApplication *app = QCoreApplication::instance();
    const bool onMain = app && QThread::currentThread() == app->thread();
    while (!_thread.wait(QDeadlineTimer(20))) {
        if (onMain)
            QCoreApplication::sendPostedEvents(app, QEvent::MetaCall);
    }
}
