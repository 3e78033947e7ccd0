// How much of what a client says a talking device keeps: no more than its
// codec's byte rate allows since the first bytes came, plus a little slack for
// a client that sends in bursts. A client that sends faster is ahead of the
// device's clock; a real device's buffer would overflow, this one keeps what
// fits and counts the rest, so that no client fills the disk at network speed.
#ifndef GATEWAY_SPEAKING_BUDGET_H
#define GATEWAY_SPEAKING_BUDGET_H

#include <chrono>
#include <cstddef>
#include <cstdint>

class SpeakingBudget {
public:
    using Clock = std::chrono::steady_clock;

    SpeakingBudget(int bytesPerSecond, Clock::duration slack) : m_bytesPerSecond(bytesPerSecond), m_slack(slack) {}

    // How many of `length` bytes arriving at `now` are kept; the rest are counted as dropped.
    size_t admit(size_t length, Clock::time_point now)
    {
        if (m_admitted == 0 && m_dropped == 0) {
            m_first = now;
        }
        const double seconds = std::chrono::duration<double>(now - m_first + m_slack).count();
        const auto allowed = static_cast<uint64_t>(seconds * m_bytesPerSecond);
        const uint64_t room = allowed > m_admitted ? allowed - m_admitted : 0;
        const size_t kept = room < length ? static_cast<size_t>(room) : length;
        m_admitted += kept;
        m_dropped += length - kept;
        return kept;
    }

    uint64_t dropped() const { return m_dropped; }

private:
    const int m_bytesPerSecond;
    const Clock::duration m_slack;
    Clock::time_point m_first;
    uint64_t m_admitted = 0;
    uint64_t m_dropped = 0;
};

#endif  // GATEWAY_SPEAKING_BUDGET_H
