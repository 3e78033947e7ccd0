// Clocks, atomics, random numbers and small text helpers.
#include "zrt/zrt.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <random>

extern "C" {

ZRT_UINT64 ZRT_GetTimeTick64(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<ZRT_UINT64>(now.tv_sec) * 1000u + static_cast<ZRT_UINT64>(now.tv_nsec) / 1000000u;
}

ZRT_UINT32 ZRT_GetTimeTick(void)
{
    return static_cast<ZRT_UINT32>(ZRT_GetTimeTick64());
}

ZRT_INT64 ZRT_TimeNow(void)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return (ZRT_INT64)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

ZRT_INT32 ZRT_AtomicInc(volatile ZRT_INT32* value)
{
    return __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST);
}

ZRT_INT32 ZRT_AtomicDec(volatile ZRT_INT32* value)
{
    return __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST);
}

ZRT_INT32 ZRT_AtomicAdd(volatile ZRT_INT32* value, ZRT_INT32 delta)
{
    return __atomic_add_fetch(value, delta, __ATOMIC_SEQ_CST);
}

ZRT_INT32 ZRT_AtomicSet(volatile ZRT_INT32* value, ZRT_INT32 newValue)
{
    return __atomic_exchange_n(value, newValue, __ATOMIC_SEQ_CST);
}

ZRT_INT32 ZRT_AtomicGet(volatile ZRT_INT32* value)
{
    return __atomic_load_n(value, __ATOMIC_SEQ_CST);
}

ZRT_INT32 ZRT_Rand(void)
{
    // One generator per thread, seeded from the kernel: no lock, no shared state.
    thread_local std::mt19937 generator = [] {
        unsigned int seed[4] = {0, 0, 0, 0};
        if (getrandom(seed, sizeof seed, 0) != (ssize_t)sizeof seed) {
            seed[0] = static_cast<unsigned int>(ZRT_TimeNow());
            seed[1] = static_cast<unsigned int>(getpid());
        }
        std::seed_seq sequence(seed, seed + 4);
        return std::mt19937(sequence);
    }();
    return static_cast<ZRT_INT32>(generator() & 0x7FFFFFFFu);
}

ZRT_INT32 ZRT_Atoi32(const char* text)
{
    return text == nullptr ? 0 : atoi(text);
}

char* ZRT_Strncpy(char* dst, const char* src, size_t n)
{
    if (dst == nullptr) {
        return nullptr;
    }
    if (src == nullptr) {
        if (n > 0) {
            dst[0] = '\0';
        }
        return dst;
    }
    return strncpy(dst, src, n);
}

ZRT_INT32 ZRT_GetSystemLastError(void)
{
    return errno;
}

ZRT_INT32 ZRT_GetCurExePath(char* buf, ZRT_INT32 size)
{
    if (buf == nullptr || size <= 1) {
        errno = EINVAL;
        return -1;
    }
    ssize_t length = readlink("/proc/self/exe", buf, static_cast<size_t>(size) - 1);
    if (length < 0) {
        buf[0] = '\0';
        return -1;
    }
    buf[length] = '\0';
    return static_cast<ZRT_INT32>(length);
}

}  // extern "C"
