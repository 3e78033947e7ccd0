// Helpers of the completion-queue tests: a queue per test, loopback TCP pairs,
// a stream pattern for byte-exact checks and a counter to wait on.
#ifndef ZRT_TESTS_ASYNCIO_TEST_HELPERS_H
#define ZRT_TESTS_ASYNCIO_TEST_HELPERS_H

#include <gtest/gtest.h>
#include <zrt/zrt.h>

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace asyncio_test {

inline bool makeTcpPair(int& client, int& server)
{
    ZRT_ADDR_T address;
    int listener = ZRT_CreateSocket(AF_INET, SOCK_STREAM, 0);
    bool ok = listener >= 0 && ZRT_MakeAddrByString(&address, "127.0.0.1", 0) == 0 &&
              ZRT_Bind(listener, &address) == 0 && ZRT_Listen(listener, 4) == 0 &&
              ZRT_GetSockName(listener, &address) == 0;
    client = ok ? ZRT_CreateSocket(AF_INET, SOCK_STREAM, 0) : -1;
    ok = ok && client >= 0 && ZRT_ConnectWithTimeOut(client, &address, 5000) == 0;
    server = ok ? ZRT_Accept(listener, nullptr, 5000) : -1;
    close(listener);
    return ok && server >= 0;
}

// Byte at offset of stream number `stream`: no period that lines up with chunk
// sizes, so a lost, doubled or reordered chunk shows.
inline char patternByte(uint64_t offset, unsigned stream)
{
    return (char)(((offset * 2654435761u) >> 11) ^ (offset >> 17) ^ (stream * 29u));
}

inline void fillPattern(char* out, size_t length, uint64_t offset, unsigned stream)
{
    for (size_t i = 0; i < length; ++i) {
        out[i] = patternByte(offset + i, stream);
    }
}

inline bool matchesPattern(const char* data, size_t length, uint64_t offset, unsigned stream)
{
    for (size_t i = 0; i < length; ++i) {
        if (data[i] != patternByte(offset + i, stream)) {
            return false;
        }
    }
    return true;
}

// Counts events of completion threads; the test waits for a number.
class Counter {
public:
    // Notifies under the lock: a waiter may destroy the counter as soon as it wakes.
    void add()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        ++m_count;
        m_changed.notify_all();
    }
    int count()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_count;
    }
    bool waitFor(int target, int timeoutMs = 30000)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_count >= target; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_count = 0;
};

inline void countCompletion(unsigned long, unsigned long, void* context)
{
    static_cast<Counter*>(context)->add();
}

// Lets a completion that should not come arrive before the test looks.
inline void settle()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
}

class AsyncQueueTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_queue = ZRT_AsyncIO_CreateQueueEx_New(4);
        ASSERT_NE(m_queue, ZRT_INVALID_ASYNCIOQUEUE);
        ASSERT_TRUE(makeTcpPair(m_client, m_server));
    }
    void TearDown() override
    {
        if (m_queue != ZRT_INVALID_ASYNCIOQUEUE) {
            EXPECT_EQ(ZRT_AsyncIO_DestroyQueueEx(m_queue), 0);
        }
        close(m_client);
        close(m_server);
    }

    void* m_queue = ZRT_INVALID_ASYNCIOQUEUE;
    int m_client = -1;
    int m_server = -1;
};

}  // namespace asyncio_test

#endif  // ZRT_TESTS_ASYNCIO_TEST_HELPERS_H
