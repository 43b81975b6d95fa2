// Linked only into the ThreadSanitizer build. Debian's Qt is not built for
// ThreadSanitizer: the order that Qt's own locks, futexes and semaphores give
// between threads is invisible to it, and every hand-over through Qt looks
// like a race. Our programs reach that synchronisation through a few exported
// Qt functions; the definitions here come before QtCore's, tell
// ThreadSanitizer the edge each call stands for, and call the real one. Every
// edge has a key of its own (the queued call, the connection, the thread, the
// pool, the caller's frame), so none orders accesses that Qt does not order.
// Calls made inside QtCore bind to QtCore and are not seen. QMutex needs
// nothing here: its inline code annotates itself under -fsanitize=thread.

#include <QObject>
#include <QThread>
#include <QThreadPool>
#include <QThreadStorage>

#include <sanitizer/tsan_interface.h>

#include <dlfcn.h>
#include <sched.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <utility>

namespace {

template <typename Fn> Fn real(const char *name)
{
    void *fn = dlsym(RTLD_NEXT, name);
    if (!fn) {
        std::fprintf(stderr, "QtHappensBefore: %s not found\n", name);
        std::abort();
    }
    return reinterpret_cast<Fn>(fn);
}

// Stands in for the slot object of a queued call or of a connection. What
// was done before it was handed to Qt is seen by every call; what the calls
// did is seen where Qt drops it, and, for a blocking call, by the caller once
// the call returns.
class OrderedSlot : public QtPrivate::QSlotObjectBase
{
public:
    OrderedSlot(QtPrivate::QSlotObjectBase *slot, void *returnKey = nullptr)
        : QSlotObjectBase(&impl)
        , _slot(slot)
        , _returnKey(returnKey)
    {}

private:
    static void impl(int which, QSlotObjectBase *base, QObject *receiver, void **args, bool *ret)
    {
        auto *self = static_cast<OrderedSlot *>(base);
        __tsan_acquire(self);
        switch (which) {
        case Destroy:
            // Qt's atomic count lets the thread that drops the last reference
            // delete it, after every call.
            __tsan_acquire(&self->_called);
            self->_slot->destroyIfLastRef();
            delete self;
            break;
        case Call:
            self->_slot->call(receiver, args);
            if (self->_returnKey)
                __tsan_release(self->_returnKey);
            __tsan_release(&self->_called);
            break;
        case Compare:
            *ret = self->_slot->compare(args);
            break;
        default:
            break;
        }
    }

    QtPrivate::QSlotObjectBase *_slot;
    void *_returnKey;
    char _called = 0;
};

// Released on the thread when Qt clears its storage, after the objects left
// for deferred deletion are gone and before the thread counts as finished.
struct ThreadEnd
{
    QThread *thread;
    ~ThreadEnd() { __tsan_release(thread); }
};
QThreadStorage<ThreadEnd *> threadEnds;

} // namespace

bool QMetaObject::invokeMethodImpl(QObject *object, QtPrivate::QSlotObjectBase *slot, Qt::ConnectionType type,
                                   void *ret)
{
    using Fn = bool (*)(QObject *, QtPrivate::QSlotObjectBase *, Qt::ConnectionType, void *);
    static const Fn invoke =
        real<Fn>("_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv");
    // The caller's frame outlives a blocking call; the slot object may not.
    char returnKey = 0;
    auto *ordered = new OrderedSlot(slot, type == Qt::BlockingQueuedConnection ? &returnKey : nullptr);
    __tsan_release(ordered);
    const bool invoked = invoke(object, ordered, type, ret);
    if (type == Qt::BlockingQueuedConnection)
        __tsan_acquire(&returnKey);
    return invoked;
}

// A connection made while the sender's thread runs is used on that thread.
QMetaObject::Connection QObject::connectImpl(const QObject *sender, void **signal, const QObject *receiver,
                                             void **slotPtr, QtPrivate::QSlotObjectBase *slot, Qt::ConnectionType type,
                                             const int *types, const QMetaObject *senderMetaObject)
{
    using Fn =
        QMetaObject::Connection (*)(const QObject *, void **, const QObject *, void **, QtPrivate::QSlotObjectBase *,
                                    Qt::ConnectionType, const int *, const QMetaObject *);
    static const Fn connect = real<Fn>(
        "_ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject");
    auto *ordered = new OrderedSlot(slot);
    __tsan_release(ordered);
    return connect(sender, signal, receiver, slotPtr, ordered, type, types, senderMetaObject);
}

void QThreadPool::start(std::function<void()> functionToRun, int priority)
{
    using Fn = void (*)(QThreadPool *, std::function<void()>, int);
    static const Fn start = real<Fn>("_ZN11QThreadPool5startESt8functionIFvvEEi");
    // Keyed on the stored object itself, which the pool's thread can name
    // without reading anything the caller wrote.
    struct PooledCall
    {
        std::function<void()> fn;
        QThreadPool *pool;
        void operator()()
        {
            __tsan_acquire(this);
            QThreadPool *done = pool;
            fn();
            __tsan_release(done);
        }
    };
    std::function<void()> ordered = PooledCall{std::move(functionToRun), this};
    __tsan_release(ordered.target<PooledCall>());
    start(this, std::move(ordered), priority);
}

bool QThreadPool::waitForDone(int msecs)
{
    using Fn = bool (*)(QThreadPool *, int);
    static const Fn waitForDone = real<Fn>("_ZN11QThreadPool11waitForDoneEi");
    const bool done = waitForDone(this, msecs);
    if (done)
        __tsan_acquire(this);
    return done;
}

// A thread's work is seen by whoever learns from Qt that it has finished.
void QThread::start(Priority priority)
{
    using Fn = void (*)(QThread *, Priority);
    static const Fn start = real<Fn>("_ZN7QThread5startENS_8PriorityE");
    connect(
        this, &QThread::finished, this,
        [this] {
            if (!threadEnds.hasLocalData())
                threadEnds.setLocalData(new ThreadEnd{this});
        },
        Qt::DirectConnection);
    start(this, priority);
}

bool QThread::wait(QDeadlineTimer deadline)
{
    using Fn = bool (*)(QThread *, QDeadlineTimer);
    static const Fn wait = real<Fn>("_ZN7QThread4waitE14QDeadlineTimer");
    const bool finished = wait(this, deadline);
    if (finished)
        __tsan_acquire(this);
    return finished;
}

bool QThread::isFinished() const
{
    using Fn = bool (*)(const QThread *);
    static const Fn isFinished = real<Fn>("_ZNK7QThread10isFinishedEv");
    const bool finished = isFinished(this);
    if (finished)
        __tsan_acquire(const_cast<QThread *>(this));
    return finished;
}

bool QThread::isRunning() const
{
    using Fn = bool (*)(const QThread *);
    static const Fn isRunning = real<Fn>("_ZNK7QThread9isRunningEv");
    const bool running = isRunning(this);
    if (!running)
        __tsan_acquire(const_cast<QThread *>(this));
    return running;
}

// QProcess starts its child with clone(CLONE_VM | CLONE_VFORK): the child
// runs in our memory until it execs. ThreadSanitizer takes every clone for a
// fork and, in the child of a process with threads, turns all checking off
// for the calling thread for good; with the memory shared, the parent's
// thread loses it too, and nothing it does after its first child is seen.
// Without CLONE_VM the child works on a copy, as after fork(), and the
// parent still waits until it has exec'd.
extern "C" int clone(int (*fn)(void *), void *stack, int flags, void *arg, ...)
{
    va_list rest;
    va_start(rest, arg);
    auto *parentTid = va_arg(rest, pid_t *);
    void *tls = va_arg(rest, void *);
    auto *childTid = va_arg(rest, pid_t *);
    va_end(rest);
    using Fn = int (*)(int (*)(void *), void *, int, void *, ...);
    static const Fn next = real<Fn>("clone");
    if ((flags & CLONE_VM) && (flags & CLONE_VFORK))
        flags &= ~CLONE_VM;
    return next(fn, stack, flags, arg, parentTid, tls, childTid);
}
