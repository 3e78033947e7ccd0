// The one clock of every talking device: each talk's packets come at its own
// period from the moment it is added, talks due together go out in one
// wake-up of one thread, and once remove returns no packet of the talk runs.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "talk/TalkPacer.h"

namespace {

using namespace std::chrono;

TEST(TalkPacer, PacketsComeAtEachTalksPeriodOnOneThreadAndStopWithRemove)
{
    TalkPacer pacer;
    std::mutex lock;
    std::vector<std::thread::id> threads;
    std::atomic<int> fast{0}, slow{0};
    auto note = [&] {
        std::lock_guard<std::mutex> guard(lock);
        threads.push_back(std::this_thread::get_id());
    };
    int fastKey = 0, slowKey = 0;
    ASSERT_TRUE(pacer.add(&fastKey, milliseconds(20), [&] { ++fast, note(); }));
    ASSERT_TRUE(pacer.add(&slowKey, milliseconds(40), [&] { ++slow, note(); }));
    EXPECT_EQ(pacer.count(), 2);
    std::this_thread::sleep_for(milliseconds(400));
    pacer.remove(&fastKey);
    const int fastAtRemove = fast.load();
    std::this_thread::sleep_for(milliseconds(100));
    pacer.remove(&slowKey);
    pacer.remove(&slowKey);  // a second time, or a key never added: nothing

    // The first packet at once, then one a period (21 and 13 in 400 and 500 ms): the count
    // keeps up with the time even on a loaded machine, since a late pacer catches up.
    EXPECT_GE(fastAtRemove, 18);
    EXPECT_LE(fastAtRemove, 22);
    EXPECT_GE(slow.load(), 11);
    EXPECT_LE(slow.load(), 14);
    EXPECT_EQ(fast.load(), fastAtRemove);
    EXPECT_EQ(pacer.count(), 0);
    std::lock_guard<std::mutex> guard(lock);
    for (const std::thread::id& id : threads) {
        EXPECT_EQ(id, threads.front());
        EXPECT_NE(id, std::this_thread::get_id());
    }
}

TEST(TalkPacer, RemoveWaitsForARunningPacketAndALatePacerSendsNoEndlessBurst)
{
    TalkPacer pacer;
    std::atomic<bool> inside{false}, finished{false};
    int key = 0;
    ASSERT_TRUE(pacer.add(&key, milliseconds(20), [&] {
        inside = true;
        std::this_thread::sleep_for(milliseconds(100));
        finished = true;
    }));
    while (!inside) {
        std::this_thread::yield();
    }
    // Each packet takes five periods: a pacer that caught up on every one of them would
    // hold the talk for ever.
    const auto asked = steady_clock::now();
    pacer.remove(&key);
    EXPECT_TRUE(finished.load());
    EXPECT_LT(steady_clock::now() - asked, seconds(2));
}

}  // namespace
