// The completion queue itself: its poller thread, its completion threads and
// the ready list that joins them.
#include "asyncio_internal.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <new>

namespace zrt_aio {

struct AsyncQueue {
    ZRT_UINT32 magic = 0;
    int epollFd = -1;
    int wakeFd = -1;  // eventfd that wakes the poller when the queue stops
    std::atomic<bool> pollerStop{false};

    // Guards the ready list, the free-standing completions, the wake-up state and stopping.
    std::mutex readyLock;
    std::condition_variable readyCv;    // sleeping completion threads
    std::condition_variable standbyCv;  // the one on standby
    AsyncHandle* readyHead = nullptr;
    AsyncHandle* readyTail = nullptr;
    OpList loose;  // posted completions that belong to no socket
    bool stopping = false;
    // A burst of completions (a hundred talks' packets sent in one go) is run by
    // the thread already at work rather than by a wake-up each: new work wakes a
    // thread only when none is at work. While threads are at work one more waits
    // on standby and takes work too when none was taken for a moment, so that
    // callbacks that block still get every thread, one after another.
    int sleepingWorkers = 0;
    bool wakePending = false;  // a sleeping thread is being woken
    int activeWorkers = 0;     // threads running callbacks
    bool standby = false;
    uint64_t takes = 0;  // work taken so far: the standby's measure of progress

    ZRT_THREAD_T poller = ZRT_INVALID_THREAD;
    ZRT_THREAD_T* workers = nullptr;
    int workerCount = 0;  // completion threads actually started
};

namespace {

constexpr ZRT_UINT32 kQueueMagic = 0x5A41494Fu;
// Far more than one per CPU, but a host that asks for many threads because its
// callbacks block should get them; beyond this it is a mistake.
constexpr int kMaxWorkers = 256;
constexpr int kPollBatch = 128;
// Callbacks of one socket run before the socket goes to the back of the ready
// list, so one busy socket cannot hold a completion thread forever.
constexpr int kDispatchBatch = 16;
// How long the standby lets the threads at work go without taking anything
// before it takes work itself. Short enough for a talk's packet time.
constexpr auto kStandbyCheck = std::chrono::milliseconds(1);
constexpr uint64_t kWakeTag = ~static_cast<uint64_t>(0);  // epoll tag of the eventfd; sockets use their number

thread_local AsyncQueue* t_queue = nullptr;               // queue whose thread this is
thread_local const AsyncHandle* t_dispatching = nullptr;  // socket whose callback runs here

// Caller holds queue->readyLock.
AsyncHandle* popReady(AsyncQueue* queue)
{
    AsyncHandle* handle = queue->readyHead;
    if (handle != nullptr) {
        queue->readyHead = handle->readyNext;
        if (queue->readyHead == nullptr) {
            queue->readyTail = nullptr;
        }
        handle->readyNext = nullptr;
    }
    return handle;
}

enum class Wake { None, Sleeper, Standby };

// Caller holds queue->readyLock and work is waiting; says whom to notify after letting the lock go.
Wake wakeFor(AsyncQueue* queue)
{
    if (queue->activeWorkers == 0 && queue->standby) {
        return Wake::Standby;  // nobody at work: the standby takes it now
    }
    const bool wanted = queue->activeWorkers == 0 || !queue->standby;  // a taker, or a standby to watch
    if (!wanted || queue->sleepingWorkers == 0 || queue->wakePending) {
        return Wake::None;
    }
    queue->wakePending = true;
    return Wake::Sleeper;
}

void notify(AsyncQueue* queue, Wake wake)
{
    if (wake == Wake::Sleeper) {
        queue->readyCv.notify_one();
    } else if (wake == Wake::Standby) {
        queue->standbyCv.notify_one();
    }
}

bool hasWork(const AsyncQueue* queue)
{
    return queue->readyHead != nullptr || !queue->loose.empty();
}

// Takes over the caller's reference to handle.
void pushReady(AsyncQueue* queue, AsyncHandle* handle)
{
    Wake wake = Wake::None;
    {
        std::lock_guard<std::mutex> guard(queue->readyLock);
        handle->readyNext = nullptr;
        if (queue->readyTail == nullptr) {
            queue->readyHead = handle;
        } else {
            queue->readyTail->readyNext = handle;
        }
        queue->readyTail = handle;
        wake = wakeFor(queue);
    }
    notify(queue, wake);
}

void runCallback(AsyncOp* op)
{
    ZRT_ASYNCIO_CALLBACK callback = op->callback;
    unsigned long error = op->error;
    unsigned long bytes = op->bytes;
    void* context = op->context;
    delete op;
    callback(error, bytes, context);
}

// Runs a batch of the socket's completions, one at a time. The handle lock is
// released around each callback, so a callback may post, unbind or close freely.
void dispatchHandle(AsyncQueue* queue, AsyncHandle* handle)
{
    std::unique_lock<std::mutex> lock(handle->mutex);
    for (int run = 0; run < kDispatchBatch && !handle->unbound; ++run) {
        AsyncOp* op = handle->completed.pop();
        if (op == nullptr) {
            break;
        }
        handle->dispatching = true;
        lock.unlock();
        t_dispatching = handle;
        runCallback(op);
        t_dispatching = nullptr;
        lock.lock();
        handle->dispatching = false;
        if (handle->idleWaiters > 0) {
            handle->idle.notify_all();
        }
    }
    if (!handle->unbound && !handle->completed.empty()) {
        handleAddRef(handle);
        pushReady(queue, handle);  // stays scheduled
    } else {
        handle->scheduled = false;
    }
}

// Caller holds queue->readyLock. Waits until this thread should take work; false when the queue stops.
bool awaitTurn(AsyncQueue* queue, std::unique_lock<std::mutex>& lock)
{
    for (;;) {
        if (queue->stopping) {
            return false;
        }
        if (hasWork(queue) && queue->activeWorkers == 0) {
            return true;
        }
        if (!hasWork(queue) || queue->standby) {
            ++queue->sleepingWorkers;
            queue->readyCv.wait(lock);
            --queue->sleepingWorkers;
            queue->wakePending = false;  // this thread is the one woken (or woke by itself)
            continue;
        }
        // Work waits while others are at work: watch whether they take it.
        const uint64_t seen = queue->takes;
        queue->standby = true;
        queue->standbyCv.wait_for(lock, kStandbyCheck);
        queue->standby = false;
        if (!queue->stopping && hasWork(queue) && (queue->takes == seen || queue->activeWorkers == 0)) {
            return true;  // they are stuck in callbacks, or done
        }
    }
}

void* completionThread(void* arg)
{
    AsyncQueue* queue = static_cast<AsyncQueue*>(arg);
    t_queue = queue;
    std::unique_lock<std::mutex> lock(queue->readyLock);
    while (awaitTurn(queue, lock)) {
        AsyncOp* loose = queue->loose.pop();
        AsyncHandle* handle = loose == nullptr ? popReady(queue) : nullptr;
        ++queue->takes;
        ++queue->activeWorkers;
        const Wake wake = hasWork(queue) ? wakeFor(queue) : Wake::None;
        lock.unlock();
        notify(queue, wake);
        if (loose != nullptr) {
            runCallback(loose);
        } else {
            dispatchHandle(queue, handle);
            handleRelease(handle);
        }
        lock.lock();
        --queue->activeWorkers;
    }
    return nullptr;
}

void serviceSocket(AsyncQueue* queue, int sock, uint32_t events)
{
    // A stale event of a socket that was unbound (or bound again elsewhere) finds
    // no handle of this queue; a spurious attempt on a live one ends in EAGAIN.
    AsyncHandle* handle = registryFind(sock);
    if (handle == nullptr) {
        return;
    }
    if (handle->queue == queue) {
        std::lock_guard<std::mutex> guard(handle->mutex);
        if (!handle->unbound) {
            if (events & (EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP)) {
                handle->mayHaveInput = true;
                driveRecvs(handle);
            }
            if (events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) {
                driveSends(handle);
            }
        }
    }
    handleRelease(handle);
}

void* pollerThread(void* arg)
{
    AsyncQueue* queue = static_cast<AsyncQueue*>(arg);
    t_queue = queue;
    struct epoll_event events[kPollBatch];
    for (;;) {
        int count = epoll_wait(queue->epollFd, events, kPollBatch, -1);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return nullptr;  // only a broken epoll descriptor gets here
        }
        for (int i = 0; i < count; ++i) {
            if (events[i].data.u64 == kWakeTag) {
                if (queue->pollerStop.load()) {
                    return nullptr;
                }
                continue;
            }
            serviceSocket(queue, static_cast<int>(events[i].data.u64), events[i].events);
        }
    }
}

void stopThreads(AsyncQueue* queue)
{
    {
        std::lock_guard<std::mutex> guard(queue->readyLock);
        queue->stopping = true;
    }
    queue->readyCv.notify_all();
    queue->standbyCv.notify_all();
    queue->pollerStop.store(true);
    if (queue->wakeFd >= 0) {
        uint64_t one = 1;
        while (write(queue->wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
    if (queue->poller != ZRT_INVALID_THREAD) {
        ZRT_Thread_Wait(queue->poller);
        queue->poller = ZRT_INVALID_THREAD;
    }
    for (int i = 0; i < queue->workerCount; ++i) {
        ZRT_Thread_Wait(queue->workers[i]);
    }
    queue->workerCount = 0;
}

// Drops everything the queue still holds. Its threads are gone.
void releaseQueue(AsyncQueue* queue)
{
    AsyncHandle* bound = registryRemoveQueue(queue);
    while (bound != nullptr) {
        AsyncHandle* handle = bound;
        bound = handle->registryNext;
        handle->registryNext = nullptr;
        OpList dropped;
        {
            std::lock_guard<std::mutex> guard(handle->mutex);
            handle->unbound = true;
            dropped.splice(handle->sends);
            dropped.splice(handle->recvs);
            dropped.splice(handle->completed);
        }
        dropped.deleteAll();
        handleRelease(handle);
    }
    {
        std::lock_guard<std::mutex> guard(queue->readyLock);
        while (AsyncHandle* handle = popReady(queue)) {
            handleRelease(handle);
        }
        queue->loose.deleteAll();
    }
    if (queue->epollFd >= 0) {
        close(queue->epollFd);
    }
    if (queue->wakeFd >= 0) {
        close(queue->wakeFd);
    }
    queue->magic = 0;
    delete[] queue->workers;
    delete queue;
}

int workerCountFor(int threads)
{
    if (threads <= 0) {
        long cpus = sysconf(_SC_NPROCESSORS_ONLN);
        threads = cpus > 0 ? static_cast<int>(cpus) : 1;
    }
    return threads > kMaxWorkers ? kMaxWorkers : threads;
}

}  // namespace

bool queueIsValid(void* queue)
{
    return queue != nullptr && queue != ZRT_INVALID_ASYNCIOQUEUE &&
           static_cast<AsyncQueue*>(queue)->magic == kQueueMagic;
}

int queueEpollFd(AsyncQueue* queue)
{
    return queue->epollFd;
}

bool isDispatchingOnThisThread(const AsyncHandle* handle)
{
    return t_dispatching == handle;
}

void completeLocked(AsyncHandle* handle, AsyncOp* op, unsigned long error, unsigned long bytes)
{
    op->error = error;
    op->bytes = bytes;
    op->finished = true;
    handle->completed.push(op);
    if (!handle->scheduled) {
        handle->scheduled = true;
        handleAddRef(handle);
        pushReady(handle->queue, handle);
    }
}

bool queuePostLoose(AsyncQueue* queue, AsyncOp* op)
{
    Wake wake = Wake::None;
    {
        std::lock_guard<std::mutex> guard(queue->readyLock);
        if (queue->stopping) {
            return false;
        }
        queue->loose.push(op);
        wake = wakeFor(queue);
    }
    notify(queue, wake);
    return true;
}

void* createQueue(int threads)
{
    int workers = workerCountFor(threads);
    AsyncQueue* queue = new (std::nothrow) AsyncQueue;
    if (queue == nullptr) {
        errno = ENOMEM;
        return ZRT_INVALID_ASYNCIOQUEUE;
    }
    queue->workers = new (std::nothrow) ZRT_THREAD_T[workers];
    queue->epollFd = epoll_create1(EPOLL_CLOEXEC);
    queue->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    bool ready = queue->workers != nullptr && queue->epollFd >= 0 && queue->wakeFd >= 0;
    if (ready) {
        struct epoll_event wake = {};
        wake.events = EPOLLIN;
        wake.data.u64 = kWakeTag;
        ready = epoll_ctl(queue->epollFd, EPOLL_CTL_ADD, queue->wakeFd, &wake) == 0;
    }
    if (ready) {
        queue->magic = kQueueMagic;
        queue->poller = ZRT_Thread_Create(pollerThread, queue, 0);
        ready = queue->poller != ZRT_INVALID_THREAD;
    }
    while (ready && queue->workerCount < workers) {
        ZRT_THREAD_T thread = ZRT_Thread_Create(completionThread, queue, 0);
        if (thread == ZRT_INVALID_THREAD) {
            ready = false;
            break;
        }
        queue->workers[queue->workerCount++] = thread;
    }
    if (!ready) {
        int error = errno != 0 ? errno : ENOMEM;
        stopThreads(queue);
        releaseQueue(queue);
        errno = error;
        return ZRT_INVALID_ASYNCIOQUEUE;
    }
    return queue;
}

int destroyQueue(void* handle)
{
    if (!queueIsValid(handle)) {
        errno = EINVAL;
        return -1;
    }
    AsyncQueue* queue = static_cast<AsyncQueue*>(handle);
    // A queue thread cannot join itself.
    if (t_queue == queue) {
        errno = EDEADLK;
        return -1;
    }
    stopThreads(queue);
    releaseQueue(queue);
    return 0;
}

}  // namespace zrt_aio
