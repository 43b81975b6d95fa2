#pragma once

#include <QByteArray>
#include <QMutex>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QThread>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

// The pattern shared by the workers that run the engine's programs: a thread
// of its own that waits for requests, one child process per request, both
// pipes read chunk by chunk on that thread while the child runs, and reports
// to the main thread, with or without waiting for it.
class QXWorkerThread : public QObject
{
    Q_OBJECT
public:
    // The worker moves itself to its own thread in start(), which Qt allows
    // only for an object without a parent: pass none.
    explicit QXWorkerThread(QObject *parent = nullptr);
    // Stops the thread; a child still running is killed first.
    ~QXWorkerThread() override;

    // Starts the thread; the worker then lives on it until the process ends.
    void start();
    QThread *thread() const { return const_cast<QThread *>(&_thread); }

    // Calls fn on the worker's thread without waiting (a run request).
    void perform(std::function<void()> fn);

    // Signals to every child of the run in progress; safe from any thread.
    // Each answers whether the signal reached a child; with no child, false.
    bool suspendChild();
    bool resumeChild();
    bool terminateChild();
    bool hasChild() const;

    // Suspension as the owner asks for it (suspend, resume, pause, stop of
    // the scanner and the updater): suspending or resuming answers false
    // when the child is already in that state by an earlier pause; pause
    // toggles and answers whether the child is now suspended; stop
    // terminates the child and continues it, since a stopped child would
    // hold its termination, and the run with it.
    bool suspendUnlessPaused();
    bool resumeIfPaused();
    bool togglePause();
    void stopChild();
    bool paused() const;

    // Drops every report from now on, also those already on their way; the
    // owner calls it on all its workers before it deletes any of them.
    void stopReporting();

    // A child that writes nothing for this long, and is not paused by its
    // owner, is taken for hung and ended. Set before a run.
    static constexpr std::chrono::milliseconds defaultSilenceLimit{std::chrono::minutes(10)};
    std::chrono::milliseconds silenceLimit() const { return _silenceLimit; }
    void setSilenceLimit(std::chrono::milliseconds limit) { _silenceLimit = limit; }

protected:
    struct RunResult
    {
        bool started = false; // false: the program could not be started
        QString error;        // why it could not be started
        int status = 0;       // exit code, or the signal that killed it
        bool crashed = false; // ended by a signal
        bool silent = false;  // ended for giving no output within the silence limit
    };

    // Runs program with arguments as a child whose output and error are on
    // pipes, hands every chunk of either to the handlers below on this thread,
    // and returns once the child has ended and both pipes are drained.
    // The child inherits environment, working folder and standard input.
    RunResult runChild(const QString &program, const QStringList &arguments);

    struct Command
    {
        QString program;
        QStringList arguments;
    };
    // Runs the commands side by side as children of this run, each as
    // runChild() would run it alone; returns once all have ended, with their
    // results in the order of the commands.
    QList<RunResult> runChildren(const QList<Command> &commands);

    // A chunk of output or error; an empty chunk is never passed.
    virtual void notifiedForStdOutput(const QByteArray &chunk);
    // A chunk of output of the child at that index of runChildren(); by
    // default passed on as if there were one child.
    virtual void notifiedForChildOutput(int child, const QByteArray &chunk);
    virtual void notifiedForStdError(const QByteArray &chunk);

    // Reports to the main thread. Once stopThread() has begun, reports are
    // dropped: their receivers may already be gone.
    void reportToMain(std::function<void()> fn);
    void reportToMainAndWait(std::function<void()> fn);

    // Ends the thread, killing a running child so that its run returns.
    // Subclasses whose runs use their own members call this first in their
    // destructor, so that no run outlives them.
    void stopThread();

    // The scanner forgets an earlier pause at the start of each run.
    void clearPaused();

private:
    struct Child;
    void deliverToMain(std::function<void()> fn, bool wait);
    // Arms the child's silence limit and takes its output as it comes; end
    // is called once the child finished or could not start.
    void watchChild(Child &child, int index, const QString &program, std::function<void()> end);
    // Ends a child that outlived the run and takes what it still had to say.
    RunResult collectChild(Child &child, int index);
    void setChildPid(int child, qint64 pid);
    bool signalChild(int signal);

    QThread _thread;
    // Shared with every report in flight; cleared on the main thread when
    // the worker stops.
    std::shared_ptr<std::atomic_bool> _reporting = std::make_shared<std::atomic_bool>(true);
    mutable QMutex _childLock;
    mutable QMutex _pauseLock;
    bool _paused = false;
    // The pids of the run's children by index; 0 for one not running.
    QList<qint64> _childPids;
    std::chrono::milliseconds _silenceLimit = defaultSilenceLimit;
    // Set from the owner's thread while the children are stopped by its signal.
    std::atomic_bool _childSuspended = false;
};
