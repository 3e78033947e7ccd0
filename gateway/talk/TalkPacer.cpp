#include "talk/TalkPacer.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace {

// Packets due this close to the one that woke the pacer go out with it.
constexpr auto kBatchWindow = std::chrono::milliseconds(1);
// Packets of one talk sent in one wake-up at most: 100 ms of PCMU.
constexpr int kMostCaughtUp = 5;
// Nice levels the pacing thread asks to be above the rest of the gateway.
constexpr int kPriorityRaise = 5;

// An absolute CLOCK_MONOTONIC time for the timer; steady_clock is that clock on Linux.
struct itimerspec timerAt(TalkPacer::Clock::time_point at)
{
    const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
    struct itimerspec setting = {};
    // Zero would disarm the timer: a time already past is one nanosecond.
    const int64_t nanoseconds = std::max<int64_t>(since, 1);
    setting.it_value.tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
    setting.it_value.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return setting;
}

// The first multiple of period (counted from the clock's epoch) at or after at.
TalkPacer::Clock::time_point inStep(TalkPacer::Clock::time_point at, TalkPacer::Clock::duration period)
{
    const auto since = at.time_since_epoch();
    const auto steps = (since + period - TalkPacer::Clock::duration(1)) / period;
    return TalkPacer::Clock::time_point(steps * period);
}

}  // namespace

TalkPacer::TalkPacer() : m_timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC))
{
    // Started at once, not with the first talk: the gateway's threads are the same before and
    // after talks, which is what its leak checks compare.
    m_started = m_timer >= 0 && m_thread.start([this] { run(); });
}

TalkPacer::~TalkPacer()
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_stopping = true;
        if (m_timer >= 0) {
            const struct itimerspec now = timerAt(Clock::time_point());
            timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &now, nullptr);
        }
    }
    m_thread.join();
    if (m_timer >= 0) {
        close(m_timer);
    }
}

bool TalkPacer::add(const void* key, Clock::duration period, std::function<void()> packet)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_started || m_stopping) {
        return false;
    }
    m_paced[key] = Paced{period, Clock::now(), std::move(packet), true};
    arm();
    return true;
}

void TalkPacer::remove(const void* key)
{
    std::unique_lock<std::mutex> lock(m_lock);
    auto found = m_paced.find(key);
    if (found == m_paced.end()) {
        return;
    }
    // Marked first: a pacer that is catching up, or wakes again before this thread gets the
    // lock back, would otherwise go on sending and hold the remover for as long as it likes.
    found->second.removed = true;
    m_idle.wait(lock, [this, key] { return m_running != key; });
    m_paced.erase(key);
}

int TalkPacer::count()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return static_cast<int>(m_paced.size());
}

void TalkPacer::arm()
{
    struct itimerspec setting = {};  // zero: disarmed
    if (m_stopping) {
        setting = timerAt(Clock::time_point());
    } else if (!m_paced.empty()) {
        // A removed talk waits only for its remover to take it out: it never sets the timer.
        auto earliest = std::min_element(m_paced.begin(), m_paced.end(), [](const auto& a, const auto& b) {
            return !a.second.removed && (b.second.removed || a.second.due < b.second.due);
        });
        if (!earliest->second.removed) {
            setting = timerAt(earliest->second.due);
        }
    }
    timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &setting, nullptr);
}

void TalkPacer::run()
{
    // Ahead of the downloads when the cores are busy: a packet late by a few milliseconds is
    // heard, a download late by as much is not noticed. Without the privilege it stays as it is.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), getpriority(PRIO_PROCESS, 0) - kPriorityRaise);
    for (;;) {
        uint64_t expirations = 0;
        if (read(m_timer, &expirations, sizeof expirations) < 0 && errno != EINTR) {
            return;  // only a broken timer descriptor gets here
        }
        std::unique_lock<std::mutex> lock(m_lock);
        if (m_stopping) {
            return;
        }
        const Clock::time_point now = Clock::now();
        m_due.clear();
        for (const auto& entry : m_paced) {
            if (!entry.second.removed && entry.second.due <= now + kBatchWindow) {
                m_due.push_back(entry.first);
            }
        }
        for (const void* key : m_due) {
            auto found = m_paced.find(key);
            if (found == m_paced.end() || found->second.removed) {
                continue;  // removed meanwhile
            }
            // The entry stays while it runs: remove waits for it.
            Paced& paced = found->second;
            m_running = key;
            // A pacer held up for a few packet times catches up at once, so every link
            // keeps the codec's rate; audio older than that is lost, as a microphone's
            // would be, rather than sent in a burst that never ends.
            for (int sent = 0; !paced.removed && paced.due <= now + kBatchWindow; ++sent) {
                if (sent == kMostCaughtUp) {
                    paced.due = now + paced.period;
                    break;
                }
                // Sent without the lock: a Send takes the plug-in's locks, and the plug-in
                // holds them while it adds and removes talks here.
                lock.unlock();
                paced.packet();
                lock.lock();
                paced.due += paced.period;
            }
            // After its first packet (sent at once) a talk falls in step with every talk of its
            // period, so that they all go out in one wake-up: its second packet comes between
            // half a period and one and a half periods after the first.
            if (paced.first) {
                paced.first = false;
                paced.due = inStep(now + paced.period / 2, paced.period);
            }
            m_running = nullptr;
            m_idle.notify_all();
        }
        arm();
    }
}
