// Counts the completions that queue threads deliver, for tests that wait for a number.
// Header-only: the platform-library suites link no support library.
#ifndef TESTS_SUPPORT_COMPLETIONCOUNTER_H
#define TESTS_SUPPORT_COMPLETIONCOUNTER_H

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

}  // namespace testsupport

#endif  // TESTS_SUPPORT_COMPLETIONCOUNTER_H
