// Threads and sleeping.
#include "zrt/zrt.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

static_assert(sizeof(pthread_t) <= sizeof(ZRT_THREAD_T), "pthread_t must fit a thread handle");

extern "C" {

ZRT_THREAD_T ZRT_Thread_Create(ZRT_THREAD_FUNC fn, void* arg, ZRT_UINT32 stackSize)
{
    if (fn == nullptr) {
        errno = EINVAL;
        return ZRT_INVALID_THREAD;
    }
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) {
        errno = rc;
        return ZRT_INVALID_THREAD;
    }
    if (stackSize != 0) {
        size_t size =
            stackSize < static_cast<ZRT_UINT32>(PTHREAD_STACK_MIN) ? static_cast<size_t>(PTHREAD_STACK_MIN) : stackSize;
        rc = pthread_attr_setstacksize(&attr, size);
    }
    pthread_t thread;
    if (rc == 0) {
        rc = pthread_create(&thread, &attr, fn, arg);
    }
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        errno = rc;
        return ZRT_INVALID_THREAD;
    }
    return (ZRT_THREAD_T)thread;
}

ZRT_INT32 ZRT_Thread_Wait(ZRT_THREAD_T thread)
{
    if (thread == ZRT_INVALID_THREAD) {
        errno = EINVAL;
        return -1;
    }
    int rc = pthread_join((pthread_t)thread, nullptr);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return 0;
}

void ZRT_Sleep(ZRT_UINT32 ms)
{
    struct timespec request = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    struct timespec remaining;
    while (nanosleep(&request, &remaining) != 0 && errno == EINTR) {
        request = remaining;
    }
}

}  // extern "C"
