// Helpers of the runtime tests: loopback listeners and TCP pairs, a completion
// queue per test, and a stream pattern for byte-exact checks.
#ifndef ZRT_TESTS_ASYNCIO_TEST_HELPERS_H
#define ZRT_TESTS_ASYNCIO_TEST_HELPERS_H

#include <gtest/gtest.h>
#include <zrt/zrt.h>

#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <thread>

#include "CompletionCounter.h"

namespace asyncio_test {

using testsupport::countCompletion;
using testsupport::Counter;
using testsupport::settle;

// A listening socket on an ephemeral loopback port, or -1.
inline int listenOnLoopback(ZRT_UINT16* port)
{
    ZRT_ADDR_T addr;
    int sock = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (sock < 0 || ZRT_MakeAddrByString(&addr, "127.0.0.1", 0) != 0 || ZRT_Bind(sock, &addr) != 0 ||
        ZRT_Listen(sock, 16) != 0 || ZRT_GetSockName(sock, &addr) != 0) {
        return -1;
    }
    *port = ZRT_GetAddrPort(&addr);
    return sock;
}

inline bool makeTcpPair(int& client, int& server)
{
    ZRT_UINT16 port = 0;
    ZRT_ADDR_T address;
    int listener = listenOnLoopback(&port);
    bool ok = listener >= 0 && ZRT_MakeAddrByString(&address, "127.0.0.1", port) == 0;
    client = ok ? ZRT_CreateSocket(AF_INET, SOCK_STREAM, 0) : -1;
    ok = ok && client >= 0 && ZRT_ConnectWithTimeOut(client, &address, 5000) == 0;
    server = ok ? ZRT_Accept(listener, nullptr, 5000) : -1;
    close(listener);
    return ok && server >= 0;
}

inline ZRT_UINT64 elapsedMs(ZRT_UINT64 start)
{
    return ZRT_GetTimeTick64() - start;
}

// Byte at offset of stream number `stream`: no period that lines up with chunk
// sizes, so a lost, doubled or reordered chunk shows.
inline char patternByte(uint64_t offset, unsigned stream)
{
    return static_cast<char>(((offset * 2654435761u) >> 11) ^ (offset >> 17) ^ (stream * 29u));
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

class AsyncQueueTest : public ::testing::Test {
protected:
    void SetUp() override
    {
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

    void* m_queue = ZRT_AsyncIO_CreateQueueEx_New(4);
    int m_client = -1;
    int m_server = -1;
};

}  // namespace asyncio_test

#endif  // ZRT_TESTS_ASYNCIO_TEST_HELPERS_H
