// Helpers of the transport tests: a completion queue per test, TCP pairs made
// with the transport's own helpers, and small waiting aids.
#ifndef TESTS_UNIT_TRANSPORT_TRANSPORT_TEST_SUPPORT_H
#define TESTS_UNIT_TRANSPORT_TRANSPORT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <zrt/zrt.h>

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "transport/SocketHelpers.h"

namespace transport_test {

// Open descriptors of the process, to show that a failed call leaves none behind.
inline int openFdCount()
{
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count;
}

inline bool makeTcpPair(int& client, int& server)
{
    int listener = HttpWrapper::Listen("127.0.0.1", 0);
    ZRT_ADDR_T address;
    if (listener < 0 || ZRT_GetSockName(listener, &address) != 0) {
        return false;
    }
    client = HttpWrapper::Connect(nullptr, 0, "127.0.0.1", ZRT_GetAddrPort(&address), 5000);
    server = HttpWrapper::Accept(listener, nullptr, 5000);
    HttpWrapper::CloseSocket(listener);
    return client >= 0 && server >= 0;
}

inline bool readExactly(int sock, char* out, size_t length)
{
    for (size_t done = 0; done < length;) {
        ssize_t got = recv(sock, out + done, length - done, 0);
        if (got <= 0) {
            return false;
        }
        done += (size_t)got;
    }
    return true;
}

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

class QueueTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_queue = ZRT_AsyncIO_CreateQueueEx_New(4);
        ASSERT_NE(m_queue, ZRT_INVALID_ASYNCIOQUEUE);
    }
    void TearDown() override { EXPECT_EQ(ZRT_AsyncIO_DestroyQueueEx(m_queue), 0); }

    void* m_queue = ZRT_INVALID_ASYNCIOQUEUE;
};

// A queue and a connected pair: each test hands m_client to a transmitter's
// Open (which owns it from then on); m_server stays the test's.
class TcpPairTest : public QueueTest {
protected:
    void SetUp() override
    {
        QueueTest::SetUp();
        ASSERT_TRUE(makeTcpPair(m_client, m_server));
    }
    void TearDown() override
    {
        if (m_server >= 0) {
            close(m_server);
        }
        QueueTest::TearDown();
    }

    int m_client = -1;
    int m_server = -1;
};

}  // namespace transport_test

#endif  // TESTS_UNIT_TRANSPORT_TRANSPORT_TEST_SUPPORT_H
