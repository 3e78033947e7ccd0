// The clock of every talking device: one thread and one timerfd send every
// talk's next packet when it is due, instead of a thread per talk that wakes
// for each of its packets. Talks due within the same millisecond go out in one
// wake-up; after its first packet each talk falls in step with the others of
// its period, so a hundred PCMU talks cost fifty wake-ups a second in all.
#ifndef GATEWAY_TALK_PACER_H
#define GATEWAY_TALK_PACER_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "base/WorkerThread.h"

class TalkPacer {
public:
    using Clock = std::chrono::steady_clock;

    TalkPacer();
    ~TalkPacer();
    TalkPacer(const TalkPacer&) = delete;
    TalkPacer& operator=(const TalkPacer&) = delete;

    // packet runs on the pacer's thread at once, then once every period, until remove(key).
    // False when the pacer has no thread or no timer.
    bool add(const void* key, Clock::duration period, std::function<void()> packet);
    // Once it returns, packet of key neither runs nor will run. Safe for an unknown key.
    void remove(const void* key);
    int count();

private:
    struct Paced {
        Clock::duration period;
        Clock::time_point due;
        std::function<void()> packet;
        bool first;            // its first packet is still to be sent
        bool removed = false;  // remove waits for its running packet: nothing more is sent
    };

    void run();
    // Sets the timer to the earliest due time (disarms it when nothing is paced). Under m_lock.
    void arm();

    int m_timer = -1;
    // Guards the table, the running key and the stop request; not held while a packet runs.
    std::mutex m_lock;
    std::condition_variable m_idle;  // a packet ended: remove may go on
    std::map<const void*, Paced> m_paced;
    const void* m_running = nullptr;  // whose packets run now, on the pacer's thread
    std::vector<const void*> m_due;   // the pacer's thread's list of talks due, kept to spare allocations
    bool m_stopping = false;
    bool m_started = false;  // set once, in the constructor
    WorkerThread m_thread;
};

#endif  // GATEWAY_TALK_PACER_H
