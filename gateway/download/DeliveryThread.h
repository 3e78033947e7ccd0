// The thread of one download. A gateway runs hundreds at once, so each gets a
// stack sized to what delivery needs instead of the default 8 MiB: the C
// library keeps the stacks of ended threads for new ones up to a total of
// 40 MiB, and hundreds of default stacks overflow that cache, so every
// download's end unmapped its stack, which flushes the TLB of every core.
// Delivery's deepest path (a log line formatted by the logging library and by
// the gateway's logger) needs under 24 KiB.
#ifndef GATEWAY_DELIVERY_THREAD_H
#define GATEWAY_DELIVERY_THREAD_H

#include <pthread.h>

#include <cstddef>
#include <functional>

class DeliveryThread {
public:
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static constexpr size_t kStackSize = 1024 * 1024;  // instrumented frames are several times larger
#else
    static constexpr size_t kStackSize = 64 * 1024;
#endif

    DeliveryThread() = default;
    ~DeliveryThread()
    {
        join();
    }
    DeliveryThread(const DeliveryThread&) = delete;
    DeliveryThread& operator=(const DeliveryThread&) = delete;

    // False when no thread could be made.
    bool start(std::function<void()> body);
    bool joinable() const
    {
        return m_started;
    }
    void join();

private:
    static void* run(void* self);

    std::function<void()> m_body;
    pthread_t m_thread{};
    bool m_started = false;
};

#endif  // GATEWAY_DELIVERY_THREAD_H
