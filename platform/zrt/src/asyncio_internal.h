// Internals of the asynchronous I/O completion queue: a proactor on epoll.
//
// One poller thread per queue waits on epoll (edge-triggered, one registration
// per socket for its whole binding) and performs the reads and writes that the
// socket's readiness allows; a posting thread may also perform an operation at
// once when nothing is queued before it. A finished operation is appended to its
// socket's completed list, and the socket is put on the queue's ready list; the
// completion threads take sockets from the ready list and run their callbacks.
//
// Invariants that keep the edge-triggered scheme from losing a wake-up: a
// socket's send list (or receive list) is non-empty only when the last attempt
// for its head ended in EAGAIN, so a readiness edge will follow; a post onto an
// empty list tries the operation at once.
//
// Callbacks of one socket run one at a time, in completion order (a socket is on
// the ready list at most once). That makes unbinding simple: at most one callback
// of the socket can be running, and the handle records which.
#ifndef ZRT_ASYNCIO_INTERNAL_H
#define ZRT_ASYNCIO_INTERNAL_H

#include "zrt/zrt.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace zrt_aio {

struct AsyncQueue;

enum class OpKind { Send, Recv };

// One posted operation; it becomes its own completion record once it is done.
struct AsyncOp {
    ~AsyncOp() { delete[] ownCopy; }

    AsyncOp* next = nullptr;
    char* buffer = nullptr;
    // A send that has to wait for the socket works on its own copy of the bytes
    // (see keepSendCopy), so the poster's buffer is free once the post returns.
    char* ownCopy = nullptr;
    bool finished = false;  // completed: on the socket's completed list, or delivered
    int length = 0;
    int transferred = 0;  // bytes written so far by a send
    void* context = nullptr;
    ZRT_ASYNCIO_CALLBACK callback = nullptr;
    bool hasTo = false;
    ZRT_ADDR_T to{};             // copied at posting, so the caller's address may go away
    ZRT_ADDR_T* from = nullptr;  // caller's, filled before the callback runs
    unsigned long error = 0;
    unsigned long bytes = 0;
};

// Intrusive FIFO of operations: no allocation beyond the operations themselves.
class OpList {
public:
    bool empty() const { return m_head == nullptr; }
    AsyncOp* front() const { return m_head; }

    void push(AsyncOp* op)
    {
        op->next = nullptr;
        if (m_tail == nullptr) {
            m_head = op;
        } else {
            m_tail->next = op;
        }
        m_tail = op;
    }

    AsyncOp* pop()
    {
        AsyncOp* op = m_head;
        if (op != nullptr) {
            m_head = op->next;
            if (m_head == nullptr) {
                m_tail = nullptr;
            }
            op->next = nullptr;
        }
        return op;
    }

    // Moves every operation of other to the end of this list.
    void splice(OpList& other)
    {
        if (other.m_head == nullptr) {
            return;
        }
        if (m_tail == nullptr) {
            m_head = other.m_head;
        } else {
            m_tail->next = other.m_head;
        }
        m_tail = other.m_tail;
        other.m_head = other.m_tail = nullptr;
    }

    void deleteAll()
    {
        while (AsyncOp* op = pop()) {
            delete op;
        }
    }

private:
    AsyncOp* m_head = nullptr;
    AsyncOp* m_tail = nullptr;
};

// A socket bound to a queue. Reference counted: the registry, the ready list and
// every thread working on it hold a reference.
struct AsyncHandle {
    int sock = -1;
    bool stream = true;  // false for datagram sockets: a send is one datagram
    AsyncQueue* queue = nullptr;
    std::atomic<int> refs{1};
    AsyncHandle* registryNext = nullptr;  // guarded by the registry lock
    AsyncHandle* readyNext = nullptr;     // guarded by the queue's ready lock

    // Guards everything below.
    std::mutex mutex;
    std::condition_variable idle;  // signalled when a callback of this socket ends
    ZRT_ASYNCIO_CALLBACK defaultCallback = nullptr;
    OpList sends;
    OpList recvs;
    OpList completed;
    bool unbound = false;
    // False once a read found nothing, until the poller sees data come: a receive
    // posted meanwhile waits for the poller instead of trying a read that fails.
    bool mayHaveInput = true;
    bool scheduled = false;    // on the ready list or being dispatched
    bool dispatching = false;  // one of its callbacks runs right now
    int idleWaiters = 0;
};

void handleAddRef(AsyncHandle* handle);
void handleRelease(AsyncHandle* handle);

// Socket-to-handle registry shared by all queues (sends and receives name only
// the socket).
// Returns the handle with a reference taken, or null.
AsyncHandle* registryFind(int sock);
// Fails (false) when the socket is already bound.
bool registryInsert(AsyncHandle* handle);
// Unlinks the socket's handle if it is bound to queue and returns it with the
// registry's reference; null otherwise.
AsyncHandle* registryRemove(int sock, AsyncQueue* queue);
// Unlinks every handle of queue and returns them as a list chained through
// registryNext, each with the registry's reference.
AsyncHandle* registryRemoveQueue(AsyncQueue* queue);

// Queue side (asyncio_queue.cpp).
// Returns the queue, or ZRT_INVALID_ASYNCIOQUEUE with errno set.
void* createQueue(int threads);
// Stops and joins the threads and drops what is pending; -1 with errno EDEADLK
// when called from one of the queue's own threads.
int destroyQueue(void* queue);
bool queueIsValid(void* queue);
// Appends a finished operation to the handle's completed list and schedules the
// handle. Caller holds handle->mutex.
void completeLocked(AsyncHandle* handle, AsyncOp* op, unsigned long error, unsigned long bytes);
// Queues a completion that belongs to no socket. False when the queue stops.
bool queuePostLoose(AsyncQueue* queue, AsyncOp* op);
int queueEpollFd(AsyncQueue* queue);
// True when the calling thread is a callback of handle.
bool isDispatchingOnThisThread(const AsyncHandle* handle);

// I/O side (asyncio_io.cpp). Both run with handle->mutex held and complete what
// they finish; they stop at EAGAIN.
void driveSends(AsyncHandle* handle);
void driveRecvs(AsyncHandle* handle);

}  // namespace zrt_aio

#endif  // ZRT_ASYNCIO_INTERNAL_H
