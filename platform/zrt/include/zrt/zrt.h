/*
 * Portable runtime: threads, locks, semaphores, atomics, clocks, sockets,
 * dynamic loading and the asynchronous I/O completion queue.
 *
 * Every C function is a thin layer over POSIX. Failures return -1 (or a null
 * handle) and leave errno for ZRT_GetSystemLastError(). Blocking calls retry
 * on EINTR; waits never spin.
 */
#ifndef ZRT_ZRT_H
#define ZRT_ZRT_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZRT_API __attribute__((visibility("default")))

typedef int32_t ZRT_INT32;
typedef uint32_t ZRT_UINT32;
typedef int64_t ZRT_INT64;
typedef uint64_t ZRT_UINT64;
typedef uint16_t ZRT_UINT16;

/* ---- initialisation (reference counted) ---- */
ZRT_API ZRT_INT32 ZRT_InitEx(void);
ZRT_API ZRT_INT32 ZRT_FiniEx(void);
/* Number of ZRT_InitEx calls not yet matched by ZRT_FiniEx. */
ZRT_API ZRT_INT32 ZRT_InitCount(void);

/* ---- threads ---- */
typedef long ZRT_THREAD_T;
#define ZRT_INVALID_THREAD ((ZRT_THREAD_T)-1)
typedef void* (*ZRT_THREAD_FUNC)(void* arg);
/* stackSize 0 takes the system default. Returns ZRT_INVALID_THREAD on failure. */
ZRT_API ZRT_THREAD_T ZRT_Thread_Create(ZRT_THREAD_FUNC fn, void* arg, ZRT_UINT32 stackSize);
/* Joins the thread. 0 on success. */
ZRT_API ZRT_INT32 ZRT_Thread_Wait(ZRT_THREAD_T thread);
ZRT_API void ZRT_Sleep(ZRT_UINT32 ms);

/* ---- counting semaphore ---- */
typedef struct ZRT_SEM_T {
    unsigned char opaque[64];
} ZRT_SEM_T;
ZRT_API ZRT_INT32 ZRT_SemCreate(ZRT_SEM_T* sem, ZRT_UINT32 initialCount);
ZRT_API ZRT_INT32 ZRT_SemPost(ZRT_SEM_T* sem);
/* 0 when a count was taken, -1 on time-out (errno ETIMEDOUT) or error. */
ZRT_API ZRT_INT32 ZRT_SemTimedWait(ZRT_SEM_T* sem, ZRT_UINT32 ms);
ZRT_API ZRT_INT32 ZRT_SemDestroy(ZRT_SEM_T* sem);

/* ---- atomics (sequentially consistent); each returns the new value ---- */
ZRT_API ZRT_INT32 ZRT_AtomicInc(volatile ZRT_INT32* value);
ZRT_API ZRT_INT32 ZRT_AtomicDec(volatile ZRT_INT32* value);
ZRT_API ZRT_INT32 ZRT_AtomicAdd(volatile ZRT_INT32* value, ZRT_INT32 delta);
/* Stores newValue and returns the previous value. */
ZRT_API ZRT_INT32 ZRT_AtomicSet(volatile ZRT_INT32* value, ZRT_INT32 newValue);
/* Atomic load, for counters that other threads change with the calls above. */
ZRT_API ZRT_INT32 ZRT_AtomicGet(volatile ZRT_INT32* value);

/* ---- clocks ---- */
/* Monotonic milliseconds (wraps after 49 days). */
ZRT_API ZRT_UINT32 ZRT_GetTimeTick(void);
ZRT_API ZRT_UINT64 ZRT_GetTimeTick64(void);
/* Wall-clock microseconds since the Unix epoch. */
ZRT_API ZRT_INT64 ZRT_TimeNow(void);

/* ---- text and misc ---- */
/* Uniform random number in [0, 0x7FFFFFFF]; thread-safe, seeded from the kernel. */
ZRT_API ZRT_INT32 ZRT_Rand(void);
/* atoi that accepts a null pointer (0). */
ZRT_API ZRT_INT32 ZRT_Atoi32(const char* text);
/* strncpy semantics: copies at most n bytes, pads with zeros, never writes past n. */
ZRT_API char* ZRT_Strncpy(char* dst, const char* src, size_t n);
/* The calling thread's errno. */
ZRT_API ZRT_INT32 ZRT_GetSystemLastError(void);
/* Full path of the running executable into buf. Returns its length or -1. */
ZRT_API ZRT_INT32 ZRT_GetCurExePath(char* buf, ZRT_INT32 size);

/* ---- sockets (IPv4) ---- */
#define ZRT_INVALID_SOCKET (-1)
typedef struct sockaddr_in ZRT_ADDR_T;
/* Sockets are created close-on-exec. */
ZRT_API int ZRT_CreateSocket(int family, int type, int protocol);
ZRT_API ZRT_INT32 ZRT_Bind(int sock, const ZRT_ADDR_T* addr);
ZRT_API ZRT_INT32 ZRT_Listen(int sock, int backlog);
/* timeoutMs 0xFFFFFFFF waits without limit. Returns the accepted socket, or -1 on
 * time-out (errno ETIMEDOUT), on error, or when the listening socket is closed
 * by ZRT_CloseSocket from another thread. */
ZRT_API int ZRT_Accept(int listenSock, ZRT_ADDR_T* peer, ZRT_UINT32 timeoutMs);
ZRT_API ZRT_INT32 ZRT_ConnectWithTimeOut(int sock, const ZRT_ADDR_T* addr, ZRT_UINT32 timeoutMs);
ZRT_API ZRT_INT32 ZRT_SetBuffSize(int sock, int recvSize, int sendSize);
ZRT_API ZRT_INT32 ZRT_SetReuseAddr(int sock, int on);
/* seconds > 0: close() lingers up to that long for unsent data;
 * 0: lingering off (close returns at once, the kernel still delivers the data). */
ZRT_API ZRT_INT32 ZRT_LingerOn(int sock, int seconds);
/* Shuts the socket down (waking any thread blocked on it) and closes it.
 * abortive != 0 resets the connection instead of a graceful close. */
ZRT_API ZRT_INT32 ZRT_CloseSocket(int sock, int abortive);
ZRT_API ZRT_INT32 ZRT_SetNonBlock(int sock, int on);
/* ip null or "" means any address. Returns -1 for a text that is not a dotted quad. */
ZRT_API ZRT_INT32 ZRT_MakeAddrByString(ZRT_ADDR_T* addr, const char* ip, ZRT_UINT16 port);
/* Dotted-quad text of the address into buf (at least 16 bytes). */
ZRT_API const char* ZRT_GetAddrString(const ZRT_ADDR_T* addr, char* buf, int size);
ZRT_API ZRT_UINT16 ZRT_GetAddrPort(const ZRT_ADDR_T* addr);
/* Local address of a bound socket. */
ZRT_API ZRT_INT32 ZRT_GetSockName(int sock, ZRT_ADDR_T* addr);

/* Bytes waiting on a connected socket, copied into buf (at most len) and left
 * there for the next read. Returns their number, 0 when the peer has closed,
 * or -1 (errno EAGAIN when nothing is waiting yet). Never blocks. */
ZRT_API int ZRT_Peek(int sock, char* buf, int len);
/* How many descriptors the process may hold (its soft RLIMIT_NOFILE); -1 on failure. */
ZRT_API int ZRT_GetMaxFds(void);

/* ---- readiness of many sockets ---- */
/* A set of sockets watched for news: a socket is reported once when bytes
 * arrive or a connection waits to be accepted, and when its peer closes or the
 * socket fails; bytes already reported are not reported again (edge-triggered),
 * so a waiter reads or accepts what it needs, or peeks and waits for more. One
 * thread waits on a set; any thread may add and remove. Returns -1 with errno
 * on failure. */
ZRT_API void* ZRT_Poller_Create(void);
ZRT_API ZRT_INT32 ZRT_Poller_Destroy(void* poller);
/* key: what ZRT_Poller_Wait reports for this socket. */
ZRT_API ZRT_INT32 ZRT_Poller_Add(void* poller, int sock, ZRT_UINT64 key);
ZRT_API ZRT_INT32 ZRT_Poller_Remove(void* poller, int sock);
/* Waits up to timeoutMs (0xFFFFFFFF: without limit) for news of at least one
 * socket and stores up to max keys; returns their number, 0 on time-out. */
ZRT_API int ZRT_Poller_Wait(void* poller, ZRT_UINT64* keys, int max, ZRT_UINT32 timeoutMs);

/* ---- dynamic loading ---- */
ZRT_API void* ZRT_LoadDSo(const char* path);
ZRT_API void* ZRT_GetDsoSym(void* dso, const char* name);
ZRT_API ZRT_INT32 ZRT_UnloadDSo(void* dso);
/* Text of the last loader failure of this thread (dlerror). */
ZRT_API const char* ZRT_GetDsoError(void);

/* ---- asynchronous I/O completion queue ---- */
/* A proactor in the style of an I/O completion port. Each queue has one poller
 * thread that performs the socket I/O and a pool of completion threads that run
 * the callbacks. An operation may be performed at once by the posting thread,
 * but its completion is always delivered on a completion thread.
 *
 * Callbacks of one socket run one at a time, in completion order; callbacks of
 * different sockets run in parallel. Failures return -1 with errno set (EINVAL
 * for a bad argument, EBADF for a socket not bound, ENOMEM).
 *
 * Completion callback: error 0 with a byte count is success; 0 bytes on a receive
 * means the peer closed; ZRT_ASYNCIO_ABORTED means the operation was cancelled or
 * timed out; any other value is the socket's errno. The queue sets no time-outs
 * of its own and drops cancelled operations silently, so ZRT_ASYNCIO_ABORTED
 * reaches a callback only when someone posts it with
 * ZRT_AsyncIO_PostQueuedCompleteStatusEx. */
typedef void (*ZRT_ASYNCIO_CALLBACK)(unsigned long error, unsigned long bytes, void* context);
#define ZRT_ASYNCIO_ABORTED 995UL
#define ZRT_INVALID_ASYNCIOQUEUE ((void*)(intptr_t)-1)

/* threads: number of completion threads that run the callbacks (0 or less: one
 * per CPU; at most 256). A host whose callbacks may block for a while asks for
 * more than it has CPUs. Returns ZRT_INVALID_ASYNCIOQUEUE on failure. */
ZRT_API void* ZRT_AsyncIO_CreateQueueEx_New(int threads);
/* Stops and joins the queue's threads; pending operations are dropped silently
 * and the sockets still bound are unbound (not closed). Fails with EDEADLK when
 * called from one of the queue's own threads. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_DestroyQueueEx(void* queue);
/* Switches the socket to non-blocking mode. A socket is bound to one queue at a
 * time (EEXIST otherwise); unbind it before closing it. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_BindIOHandleToQueueEx(int sock, void* queue);
/* Default callback of a bound socket, used by operations posted without one. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_BindCallBackToIOHandleEx(int sock, ZRT_ASYNCIO_CALLBACK cb);
/* Cancels what is pending on the socket and waits for a callback of the socket
 * that runs on another thread. After return no completion of this socket is
 * delivered any more and no buffer of it is touched. Safe to call from inside
 * one of the socket's own callbacks (that one is not waited for). Do not call it
 * while holding a lock that the socket's callbacks take. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_UnBindIOHandleEx(int sock, void* queue);
/* Completes when all len bytes were written (short writes continue inside the
 * queue); sends on one socket are written and complete in posting order. What
 * the socket cannot take at once is copied, so the buffer is free again when the
 * call returns. len 0 completes with 0 bytes. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_SendEx(int sock, const char* buf, int len, void* context, ZRT_ASYNCIO_CALLBACK cb);
/* Completes with what one read returned (0: the peer closed). len must be > 0.
 * Receives on one socket are served in posting order. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_RecvEx(int sock, char* buf, int len, void* context, ZRT_ASYNCIO_CALLBACK cb);
/* One datagram to the address (copied at the call), its buffer as for SendEx. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_SendToEx(int sock, const char* buf, int len, void* context, const ZRT_ADDR_T* to,
                                       ZRT_ASYNCIO_CALLBACK cb);
/* from, when not null, receives the sender's address before the callback runs. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_RecvFromEx(int sock, char* buf, int len, void* context, ZRT_ADDR_T* from,
                                         ZRT_ASYNCIO_CALLBACK cb);
/* Delivers a synthetic completion (error, bytes, context) through cb on a queue
 * thread. With sock >= 0 the socket must be bound to this queue: the completion
 * then runs in order with the socket's others, cb null means its default
 * callback, and unbinding cancels it. With sock < 0 it belongs to no socket. */
ZRT_API ZRT_INT32 ZRT_AsyncIO_PostQueuedCompleteStatusEx(void* queue, int sock, unsigned long error,
                                                         unsigned long bytes, void* context, ZRT_ASYNCIO_CALLBACK cb);

#ifdef __cplusplus
} /* extern "C" */

#include <pthread.h>

/* Mutex. kind 0 (the default) is a plain mutex; any other kind is recursive, so
 * the owning thread may lock it again. */
class ZRT_API ZRT_Mutex {
public:
    explicit ZRT_Mutex(int kind = 0);
    ~ZRT_Mutex();
    ZRT_Mutex(const ZRT_Mutex&) = delete;
    ZRT_Mutex& operator=(const ZRT_Mutex&) = delete;
    void Lock();
    void Unlock();
    bool TryLock();

private:
    pthread_mutex_t m_mutex;
};

/* Scoped lock over a ZRT_Mutex. */
class ZRT_Guard {
public:
    explicit ZRT_Guard(ZRT_Mutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~ZRT_Guard() { m_mutex.Unlock(); }
    ZRT_Guard(const ZRT_Guard&) = delete;
    ZRT_Guard& operator=(const ZRT_Guard&) = delete;

private:
    ZRT_Mutex& m_mutex;
};

/* Counting semaphore with a maximum count: a post at the maximum fails. */
class ZRT_API ZRT_Sema {
public:
    ZRT_Sema(ZRT_UINT32 initialCount, ZRT_UINT32 maxCount);
    ~ZRT_Sema();
    ZRT_Sema(const ZRT_Sema&) = delete;
    ZRT_Sema& operator=(const ZRT_Sema&) = delete;

private:
    friend ZRT_INT32 ZRT_Sema_Post(ZRT_Sema* sema);
    friend ZRT_INT32 ZRT_Sema_TimedWait(ZRT_Sema* sema, ZRT_UINT32 ms);
    pthread_mutex_t m_mutex;
    pthread_cond_t m_cond;
    ZRT_UINT32 m_count;
    ZRT_UINT32 m_max;
};
/* -1 when the count is at its maximum. */
ZRT_API ZRT_INT32 ZRT_Sema_Post(ZRT_Sema* sema);
/* 0 when a count was taken within ms, -1 on time-out. */
ZRT_API ZRT_INT32 ZRT_Sema_TimedWait(ZRT_Sema* sema, ZRT_UINT32 ms);

namespace zrt {
/* Standard-library style (BasicLockable) face of a plain runtime mutex, for
 * std::lock_guard and static objects built at library load. */
class ZRT_API zrt_mutex {
public:
    zrt_mutex() = default;
    void lock() { m_mutex.Lock(); }
    void unlock() { m_mutex.Unlock(); }
    bool try_lock() { return m_mutex.TryLock(); }

private:
    ZRT_Mutex m_mutex;
};
}  // namespace zrt

#endif /* __cplusplus */

#endif /* ZRT_ZRT_H */
