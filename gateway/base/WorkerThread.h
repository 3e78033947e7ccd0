// A thread of the gateway's own: a download's delivery, or the pacing of the
// talking devices. A gateway runs hundreds at once, so each gets a stack sized
// to what delivery needs instead of the default 8 MiB: the C library keeps the
// stacks of ended threads for new ones up to a total of 40 MiB, and hundreds of
// default stacks overflow that cache, so every download's end unmapped its
// stack, which flushes the TLB of every core. The deepest path (a log line
// formatted by the logging library and by the gateway's logger, under a Send
// into the plug-in) needs under 24 KiB.
#ifndef GATEWAY_WORKER_THREAD_H
#define GATEWAY_WORKER_THREAD_H

#include <pthread.h>

#include <cstddef>
#include <functional>

class WorkerThread {
public:
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static constexpr size_t kStackSize = 1024 * 1024;  // instrumented frames are several times larger
#else
    static constexpr size_t kStackSize = 64 * 1024;
#endif

    WorkerThread() = default;
    ~WorkerThread()
    {
        join();
    }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

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

#endif  // GATEWAY_WORKER_THREAD_H
