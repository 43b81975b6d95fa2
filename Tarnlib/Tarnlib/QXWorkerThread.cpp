#include "QXWorkerThread.h"

#include "platform/SystemLog.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMutexLocker>
#include <QTimer>

#include <csignal>
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

void QXWorkerThread::setChildPid(qint64 pid)
{
    QMutexLocker locker(&_childLock);
    _childPid = pid;
}

bool QXWorkerThread::signalChild(int signal)
{
    // The lock keeps the pid from being cleared, and the child reaped and its
    // pid reused, between the test and the kill.
    QMutexLocker locker(&_childLock);
    if (_childPid <= 0)
        return false;
    return ::kill(pid_t(_childPid), signal) == 0;
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
    return _childPid > 0;
}

QXWorkerThread::RunResult QXWorkerThread::runChild(const QString &program, const QStringList &arguments)
{
    RunResult result;
    QProcess process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    QEventLoop loop;
    bool ended = false;

    // A child that hangs (a suspended daemon, an updater that never returns)
    // would hold its worker, and the agent with it, for ever.
    QTimer silence;
    silence.setSingleShot(true);
    silence.setInterval(_silenceLimit);
    connect(&silence, &QTimer::timeout, &process, [&] {
        // A child its owner suspended is quiet on purpose.
        if (_childSuspended) {
            silence.start();
            return;
        }
        result.silent = true;
        SystemLog::log(QStringLiteral("%1 gave no output for %2 s: ending it")
                           .arg(program)
                           .arg(std::chrono::duration_cast<std::chrono::seconds>(_silenceLimit).count()));
        process.terminate();
        // One that ignores the termination is killed.
        QTimer::singleShot(5000, &process, [&process] { process.kill(); });
    });

    // Every chunk is taken out of its pipe whether or not a subclass cares, so
    // that a child never blocks on a full pipe.
    const auto readOutput = [&] {
        const QByteArray chunk = process.readAllStandardOutput();
        if (!chunk.isEmpty()) {
            if (!result.silent)
                silence.start();
            notifiedForStdOutput(chunk);
        }
    };
    const auto readError = [&] {
        const QByteArray chunk = process.readAllStandardError();
        if (!chunk.isEmpty()) {
            if (!result.silent)
                silence.start();
            notifiedForStdError(chunk);
        }
    };
    connect(&process, &QProcess::readyReadStandardOutput, &process, readOutput);
    connect(&process, &QProcess::readyReadStandardError, &process, readError);
    _childSuspended = false;
    connect(&process, &QProcess::started, &process, [&] {
        setChildPid(process.processId());
        silence.start();
    });
    connect(&process, &QProcess::finished, &process, [&](int exitCode, QProcess::ExitStatus exitStatus) {
        setChildPid(0);
        silence.stop();
        result.started = true;
        // For a child ended by a signal Qt gives the signal number as the code.
        result.status = exitCode;
        result.crashed = exitStatus == QProcess::CrashExit;
        ended = true;
        loop.quit();
    });
    // A program that cannot be started never sends finished.
    connect(&process, &QProcess::errorOccurred, &process, [&](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        setChildPid(0);
        result.started = false;
        result.error = process.errorString();
        ended = true;
        loop.quit();
    });

    process.start(program, arguments);
    if (!ended)
        loop.exec();
    if (process.state() != QProcess::NotRunning) {
        // Only stopThread() leaves the loop early; the child must not outlive the run.
        setChildPid(0);
        process.kill();
        process.waitForFinished(-1);
    }
    readOutput();
    readError();
    setChildPid(0);
    return result;
}

void QXWorkerThread::notifiedForStdOutput(const QByteArray &)
{}

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
    {
        QMutexLocker locker(&_childLock);
        if (_childPid > 0)
            ::kill(pid_t(_childPid), SIGKILL);
    }
    _thread.quit();
    // A run that is ending may still wait for the main thread to take a report.
    QCoreApplication *app = QCoreApplication::instance();
    const bool onMain = app && QThread::currentThread() == app->thread();
    while (!_thread.wait(QDeadlineTimer(20))) {
        if (onMain)
            QCoreApplication::sendPostedEvents(app, QEvent::MetaCall);
    }
}
