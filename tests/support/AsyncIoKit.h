// For the tests of the completion queue and of what runs on it: a counter of
// completions to wait for, and connected loopback TCP pairs. Header-only: the
// platform-library suites link no support library.
#ifndef TESTS_SUPPORT_ASYNCIOKIT_H
#define TESTS_SUPPORT_ASYNCIOKIT_H

#include <unistd.h>
#include <zrt/zrt.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace testsupport {

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

}  // namespace testsupport

#endif  // TESTS_SUPPORT_ASYNCIOKIT_H
