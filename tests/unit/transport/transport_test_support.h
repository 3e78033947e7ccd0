// Helpers of the transport tests: a completion queue per test, TCP pairs made
// with the transport's own helpers, and a descriptor count.
#ifndef TESTS_UNIT_TRANSPORT_TRANSPORT_TEST_SUPPORT_H
#define TESTS_UNIT_TRANSPORT_TRANSPORT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <zrt/zrt.h>

#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "CompletionCounter.h"
#include "ProcessResources.h"
#include "transport/SocketHelpers.h"

namespace transport_test {

// Open descriptors of the process, to show that a failed call leaves none behind.
inline int openFdCount()
{
    return testsupport::openDescriptorCount();
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

using testsupport::countCompletion;
using testsupport::Counter;
using testsupport::settle;

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
