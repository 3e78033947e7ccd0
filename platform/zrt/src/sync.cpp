// Mutexes and semaphores. Timed waits run on the monotonic clock, so a change
// of the wall clock never stretches or cuts a time-out.
#include "zrt/zrt.h"

#include <errno.h>
#include <semaphore.h>
#include <time.h>

static_assert(sizeof(sem_t) <= sizeof(ZRT_SEM_T), "sem_t must fit ZRT_SEM_T");

namespace {

struct timespec deadlineAfter(ZRT_UINT32 ms)
{
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
}

sem_t* asSem(ZRT_SEM_T* sem)
{
    return reinterpret_cast<sem_t*>(sem->opaque);
}

}  // namespace

extern "C" {

ZRT_INT32 ZRT_SemCreate(ZRT_SEM_T* sem, ZRT_UINT32 initialCount)
{
    if (sem == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return sem_init(asSem(sem), 0, initialCount) == 0 ? 0 : -1;
}

ZRT_INT32 ZRT_SemPost(ZRT_SEM_T* sem)
{
    if (sem == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return sem_post(asSem(sem)) == 0 ? 0 : -1;
}

ZRT_INT32 ZRT_SemTimedWait(ZRT_SEM_T* sem, ZRT_UINT32 ms)
{
    if (sem == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct timespec deadline = deadlineAfter(ms);
    for (;;) {
        if (sem_clockwait(asSem(sem), CLOCK_MONOTONIC, &deadline) == 0) {
            return 0;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

ZRT_INT32 ZRT_SemDestroy(ZRT_SEM_T* sem)
{
    if (sem == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return sem_destroy(asSem(sem)) == 0 ? 0 : -1;
}

}  // extern "C"

ZRT_Mutex::ZRT_Mutex(int kind)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, kind == 0 ? PTHREAD_MUTEX_NORMAL : PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

ZRT_Mutex::~ZRT_Mutex()
{
    pthread_mutex_destroy(&m_mutex);
}

void ZRT_Mutex::Lock()
{
    pthread_mutex_lock(&m_mutex);
}

void ZRT_Mutex::Unlock()
{
    pthread_mutex_unlock(&m_mutex);
}

bool ZRT_Mutex::TryLock()
{
    return pthread_mutex_trylock(&m_mutex) == 0;
}

ZRT_Sema::ZRT_Sema(ZRT_UINT32 initialCount, ZRT_UINT32 maxCount)
    : m_count(initialCount), m_max(maxCount == 0 ? 1 : maxCount)
{
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_cond, &attr);
    pthread_condattr_destroy(&attr);
    if (m_count > m_max) {
        m_count = m_max;
    }
}

ZRT_Sema::~ZRT_Sema()
{
    pthread_cond_destroy(&m_cond);
    pthread_mutex_destroy(&m_mutex);
}

ZRT_INT32 ZRT_Sema_Post(ZRT_Sema* sema)
{
    if (sema == nullptr) {
        errno = EINVAL;
        return -1;
    }
    pthread_mutex_lock(&sema->m_mutex);
    if (sema->m_count >= sema->m_max) {
        pthread_mutex_unlock(&sema->m_mutex);
        errno = EOVERFLOW;
        return -1;
    }
    sema->m_count++;
    pthread_mutex_unlock(&sema->m_mutex);
    pthread_cond_signal(&sema->m_cond);
    return 0;
}

ZRT_INT32 ZRT_Sema_TimedWait(ZRT_Sema* sema, ZRT_UINT32 ms)
{
    if (sema == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct timespec deadline = deadlineAfter(ms);
    pthread_mutex_lock(&sema->m_mutex);
    int rc = 0;
    while (sema->m_count == 0 && rc == 0) {
        rc = pthread_cond_timedwait(&sema->m_cond, &sema->m_mutex, &deadline);
    }
    bool taken = sema->m_count > 0;
    if (taken) {
        sema->m_count--;
    }
    pthread_mutex_unlock(&sema->m_mutex);
    if (!taken) {
        errno = ETIMEDOUT;
        return -1;
    }
    return 0;
}
