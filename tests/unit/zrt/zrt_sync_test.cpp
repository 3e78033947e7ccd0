#include "asyncio_test_helpers.h"

#include <errno.h>

#include <atomic>
#include <vector>

using asyncio_test::elapsedMs;

TEST(ZrtSemaphore, TimedWaitHonoursTheTimeoutAndPostWakesAWaiter)
{
    ZRT_SEM_T sem;
    ASSERT_EQ(ZRT_SemCreate(&sem, 2), 0);
    EXPECT_EQ(ZRT_SemTimedWait(&sem, 0), 0);
    EXPECT_EQ(ZRT_SemTimedWait(&sem, 0), 0);
    ZRT_UINT64 start = ZRT_GetTimeTick64();
    EXPECT_EQ(ZRT_SemTimedWait(&sem, 150), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(elapsedMs(start), 145u);
    EXPECT_LT(elapsedMs(start), 1000u);

    start = ZRT_GetTimeTick64();
    std::thread poster([&] {
        ZRT_Sleep(50);
        ZRT_SemPost(&sem);
    });
    EXPECT_EQ(ZRT_SemTimedWait(&sem, 5000), 0);
    EXPECT_GE(elapsedMs(start), 49u) << "ZRT_Sleep lasts at least the requested time";
    EXPECT_LT(elapsedMs(start), 2000u);
    poster.join();
    EXPECT_EQ(ZRT_SemDestroy(&sem), 0);
}

TEST(ZrtSema, MaximumCountRefusesPostsAndProducerConsumerLosesNone)
{
    ZRT_Sema bounded(0, 2);
    EXPECT_EQ(ZRT_Sema_Post(&bounded), 0);
    EXPECT_EQ(ZRT_Sema_Post(&bounded), 0);
    EXPECT_EQ(ZRT_Sema_Post(&bounded), -1);
    EXPECT_EQ(ZRT_Sema_TimedWait(&bounded, 10), 0);
    EXPECT_EQ(ZRT_Sema_TimedWait(&bounded, 10), 0);
    ZRT_UINT64 start = ZRT_GetTimeTick64();
    EXPECT_EQ(ZRT_Sema_TimedWait(&bounded, 100), -1);
    EXPECT_GE(elapsedMs(start), 95u);

    ZRT_Sema sema(0, 65535);
    const int posts = 20000;
    std::atomic<int> taken{0};
    std::thread consumer([&] {
        while (taken < posts) {
            taken += ZRT_Sema_TimedWait(&sema, 100) == 0 ? 1 : 0;
        }
    });
    for (int i = 0; i < posts; ++i) {
        while (ZRT_Sema_Post(&sema) != 0) {
            std::this_thread::yield();
        }
    }
    consumer.join();
    EXPECT_EQ(taken.load(), posts);
    EXPECT_EQ(ZRT_Sema_TimedWait(&sema, 0), -1);
}

TEST(ZrtMutex, OnlyTheRecursiveKindMayBeReenteredByItsOwner)
{
    ZRT_Mutex plain;
    plain.Lock();
    EXPECT_FALSE(plain.TryLock());
    plain.Unlock();

    ZRT_Mutex mutex(1);
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());  // re-entry by the owner
    std::atomic<bool> otherGot{true};
    std::thread([&] { otherGot = mutex.TryLock(); }).join();
    EXPECT_FALSE(otherGot.load());
    mutex.Unlock();
    mutex.Unlock();
    std::thread([&] {
        otherGot = mutex.TryLock();
        if (otherGot) {
            mutex.Unlock();
        }
    }).join();
    EXPECT_TRUE(otherGot.load());
}

TEST(ZrtAtomic, AtomicsAndGuardsHoldUnderContention)
{
    volatile ZRT_INT32 counter = 0;
    volatile ZRT_INT32 sum = 0;
    ZRT_Mutex mutex(1);
    zrt::zrt_mutex stdStyle;
    long guarded = 0;
    long stdGuarded = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50000; ++i) {
                ZRT_AtomicInc(&counter);
                ZRT_AtomicAdd(&sum, 3);
                ZRT_AtomicDec(&counter);
                ZRT_AtomicInc(&counter);
                {
                    ZRT_Guard guard(mutex);
                    ++guarded;
                }
                std::lock_guard<zrt::zrt_mutex> guard(stdStyle);
                ++stdGuarded;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ZRT_AtomicGet(&counter), 200000);
    EXPECT_EQ(ZRT_AtomicGet(&sum), 600000);
    EXPECT_EQ(guarded, 200000);
    EXPECT_EQ(stdGuarded, 200000);
    EXPECT_EQ(ZRT_AtomicSet(&counter, 7), 200000);
    EXPECT_EQ(ZRT_AtomicGet(&counter), 7);
    EXPECT_EQ(ZRT_AtomicAdd(&counter, -7), 0);
}

TEST(ZrtThread, RunsWithARequestedStackAndIsJoined)
{
    static std::atomic<int> ran{0};
    static int threadArgument = 4;
    ran = 0;
    ZRT_THREAD_T thread = ZRT_Thread_Create(
        [](void* arg) -> void* {
            char big[128 * 1024];  // needs more than the minimum stack
            big[0] = 1;
            big[sizeof big - 1] = 2;
            ran = big[0] + big[sizeof big - 1] + *static_cast<int*>(arg);
            return nullptr;
        },
        &threadArgument, 0x40000);
    ASSERT_NE(thread, ZRT_INVALID_THREAD);
    EXPECT_EQ(ZRT_Thread_Wait(thread), 0);
    EXPECT_EQ(ran.load(), 7);
    EXPECT_EQ(ZRT_Thread_Create(nullptr, nullptr, 0), ZRT_INVALID_THREAD);
    EXPECT_EQ(ZRT_Thread_Wait(ZRT_INVALID_THREAD), -1);
}
