// The latch that streams opened before CreateServer returned wait on: a waiter
// wakes when the server becomes known, and one whose stream is stopped gives up
// at once instead of sleeping until the server comes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

#include "base/ServerLatch.h"

namespace {

class NullServer : public PROTOCOL_WRAPPER::IServer {
public:
    int Start() override { return 0; }
    int Stop() override { return 0; }
    int SendMSG(PROTOCOL_WRAPPER::IServerData*, int, void*, int) override { return 0; }
    int Send(PROTOCOL_WRAPPER::IServerData*, int, int, void*, int) override { return 0; }
};

TEST(ServerLatch, AWaiterWakesWhenTheServerIsSetOrWhenItGivesUp)
{
    ServerLatch latch;
    NullServer server;
    std::atomic<bool> stopped{false};

    auto gaveUp = std::async(std::launch::async, [&] { return latch.wait([&] { return stopped.load(); }); });
    ASSERT_EQ(gaveUp.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    stopped = true;
    latch.wake();
    ASSERT_EQ(gaveUp.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(gaveUp.get(), nullptr);

    auto known = std::async(std::launch::async, [&] { return latch.wait([] { return false; }); });
    ASSERT_EQ(known.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    latch.set(&server);
    ASSERT_EQ(known.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(known.get(), &server);
    // Once known, nobody waits, even a waiter that would give up.
    EXPECT_EQ(latch.wait([] { return true; }), &server);
    EXPECT_EQ(latch.get(), &server);
}

}  // namespace
