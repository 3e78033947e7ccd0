// Unbinding, synthetic completions and queue destruction: the promises owners
// rely on to free their contexts safely.
#include "asyncio_test_helpers.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <atomic>
#include <vector>

using namespace asyncio_test;

namespace {

struct BlockingOwner {
    std::mutex mutex;
    std::condition_variable changed;
    bool released = false;
    Counter calls;
    std::atomic<bool> finished{false};
};

// The completion with 1 byte blocks until released; the others only count.
void blockOnFirst(unsigned long, unsigned long bytes, void* context)
{
    BlockingOwner* owner = static_cast<BlockingOwner*>(context);
    owner->calls.add();
    if (bytes == 1) {
        std::unique_lock<std::mutex> lock(owner->mutex);
        owner->changed.wait(lock, [owner] { return owner->released; });
        owner->finished = true;
    }
}

TEST_F(AsyncQueueTest, UnbindWaitsForARunningCallbackAndCancelsEverythingPending)
{
    ASSERT_EQ(ZRT_AsyncIO_BindIOHandleToQueueEx(m_server, m_queue), 0);
    EXPECT_NE(fcntl(m_server, F_GETFL) & O_NONBLOCK, 0);
    Counter received;
    char buffer[32];
    memset(buffer, 'x', sizeof buffer);
    ASSERT_EQ(ZRT_AsyncIO_RecvEx(m_server, buffer, sizeof buffer, &received, countCompletion), 0);
    BlockingOwner owner;
    ASSERT_EQ(ZRT_AsyncIO_PostQueuedCompleteStatusEx(m_queue, m_server, 0, 1, &owner, blockOnFirst), 0);
    ASSERT_TRUE(owner.calls.waitFor(1));
    // Queued behind the running one: callbacks of one socket never overlap.
    ASSERT_EQ(ZRT_AsyncIO_PostQueuedCompleteStatusEx(m_queue, m_server, 0, 2, &owner, blockOnFirst), 0);

    std::atomic<bool> unbound{false};
    std::atomic<bool> callbackEndedFirst{false};
    std::thread unbinder([&] {
        EXPECT_EQ(ZRT_AsyncIO_UnBindIOHandleEx(m_server, m_queue), 0);
        callbackEndedFirst = owner.finished.load();
        unbound = true;
    });
    settle();
    EXPECT_FALSE(unbound);
    {
        std::lock_guard<std::mutex> guard(owner.mutex);
        owner.released = true;
    }
    owner.changed.notify_all();
    unbinder.join();
    EXPECT_TRUE(callbackEndedFirst);

    ASSERT_EQ(send(m_client, "late", 4, 0), 4);
    settle();
    EXPECT_EQ(owner.calls.count(), 1);
    EXPECT_EQ(received.count(), 0);
    EXPECT_EQ(buffer[0], 'x');  // no read after unbinding
    EXPECT_EQ(ZRT_AsyncIO_RecvEx(m_server, buffer, sizeof buffer, &received, countCompletion), -1);
}

struct SelfUnbind {
    void* queue;
    int sock;
    std::atomic<int> result{1};
    Counter posted;
    Counter calls;
};

TEST_F(AsyncQueueTest, UnbindFromInsideTheSocketsOwnCallbackReturnsAndStopsTheRest)
{
    ASSERT_EQ(ZRT_AsyncIO_BindIOHandleToQueueEx(m_server, m_queue), 0);
    SelfUnbind state;
    state.queue = m_queue;
    state.sock = m_server;
    auto unbindOnFirst = [](unsigned long, unsigned long, void* context) {
        SelfUnbind* state = static_cast<SelfUnbind*>(context);
        if (state->calls.count() == 0) {
            state->posted.waitFor(1);  // the others are queued behind this one by now
            state->result = ZRT_AsyncIO_UnBindIOHandleEx(state->sock, state->queue);
        }
        state->calls.add();
    };
    char buffer[16];
    ASSERT_EQ(ZRT_AsyncIO_RecvEx(m_server, buffer, sizeof buffer, &state, unbindOnFirst), 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(ZRT_AsyncIO_PostQueuedCompleteStatusEx(m_queue, m_server, 0, 0, &state, unbindOnFirst), 0);
    }
    state.posted.add();
    ASSERT_TRUE(state.calls.waitFor(1));
    ASSERT_EQ(send(m_client, "data", 4, 0), 4);
    settle();
    EXPECT_EQ(state.result.load(), 0);
    EXPECT_EQ(state.calls.count(), 1);
}

struct Delivery {
    unsigned long error = 0;
    unsigned long bytes = 0;
    std::thread::id thread;
    Counter done;
};

void recordDelivery(unsigned long error, unsigned long bytes, void* context)
{
    Delivery* delivery = static_cast<Delivery*>(context);
    delivery->error = error;
    delivery->bytes = bytes;
    delivery->thread = std::this_thread::get_id();
    delivery->done.add();
}

TEST_F(AsyncQueueTest, PostedCompletionsArriveOnAQueueThreadWithTheirValues)
{
    Delivery loose;
    ASSERT_EQ(ZRT_AsyncIO_PostQueuedCompleteStatusEx(m_queue, -1, ZRT_ASYNCIO_ABORTED, 7, &loose, recordDelivery), 0);
    ASSERT_TRUE(loose.done.waitFor(1));
    EXPECT_EQ(loose.error, ZRT_ASYNCIO_ABORTED);
    EXPECT_EQ(loose.bytes, 7UL);
    EXPECT_NE(loose.thread, std::this_thread::get_id());

    // On a bound socket a null callback means the socket's default one.
    ASSERT_EQ(ZRT_AsyncIO_BindIOHandleToQueueEx(m_server, m_queue), 0);
    ASSERT_EQ(ZRT_AsyncIO_BindCallBackToIOHandleEx(m_server, recordDelivery), 0);
    Delivery bound;
    ASSERT_EQ(ZRT_AsyncIO_PostQueuedCompleteStatusEx(m_queue, m_server, 104, 9, &bound, nullptr), 0);
    ASSERT_TRUE(bound.done.waitFor(1));
    EXPECT_EQ(bound.error, 104UL);
    EXPECT_EQ(bound.bytes, 9UL);
    // A socket that is not bound has nothing to run a completion in order with.
    EXPECT_EQ(ZRT_AsyncIO_PostQueuedCompleteStatusEx(m_queue, m_client, 0, 0, &loose, recordDelivery), -1);
    EXPECT_EQ(errno, EBADF);
}

struct SlowCallback {
    void* queue;
    Counter started;
    std::atomic<int> selfDestroyError{0};
    std::atomic<bool> finished{false};
};

TEST_F(AsyncQueueTest, DestroyJoinsRunningCallbacksAndDropsPendingWork)
{
    ASSERT_EQ(ZRT_AsyncIO_BindIOHandleToQueueEx(m_client, m_queue), 0);
    Counter completions;
    char buffer[64];
    ASSERT_EQ(ZRT_AsyncIO_RecvEx(m_client, buffer, sizeof buffer, &completions, countCompletion), 0);
    // Nobody reads on the server side: this send stays pending on a full buffer.
    std::vector<char> bulk(32u << 20, 'b');
    ASSERT_EQ(ZRT_AsyncIO_SendEx(m_client, bulk.data(), (int)bulk.size(), &completions, countCompletion), 0);

    SlowCallback slow;
    slow.queue = m_queue;
    auto destroyOwnQueueThenLinger = [](unsigned long, unsigned long, void* context) {
        SlowCallback* slow = static_cast<SlowCallback*>(context);
        slow->selfDestroyError = ZRT_AsyncIO_DestroyQueueEx(slow->queue) == -1 ? errno : 0;
        slow->started.add();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        slow->finished = true;
    };
    ASSERT_EQ(ZRT_AsyncIO_PostQueuedCompleteStatusEx(m_queue, -1, 0, 0, &slow, destroyOwnQueueThenLinger), 0);
    ASSERT_TRUE(slow.started.waitFor(1));
    EXPECT_EQ(slow.selfDestroyError.load(), EDEADLK);  // a queue thread cannot join itself
    ASSERT_EQ(ZRT_AsyncIO_DestroyQueueEx(m_queue), 0);
    m_queue = ZRT_INVALID_ASYNCIOQUEUE;
    EXPECT_TRUE(slow.finished);

    bulk = std::vector<char>();  // the dropped send must not touch it any more
    ASSERT_EQ(send(m_server, "wake", 4, 0), 4);
    settle();
    EXPECT_EQ(completions.count(), 0);
    EXPECT_EQ(ZRT_AsyncIO_SendEx(m_client, "x", 1, &completions, countCompletion), -1);  // unbound, not closed
    EXPECT_NE(fcntl(m_client, F_GETFD), -1);
}

}  // namespace
