#include "download/DeliveryRate.h"

#include <algorithm>

void DeliveryRate::start(Clock::time_point now, uint64_t bytes)
{
    m_windowStart = now;
    m_windowBytes = bytes;
}

bool DeliveryRate::tooSlow(Clock::time_point now, uint64_t bytes)
{
    if (!enabled() || now - m_windowStart < m_window) {
        return false;
    }
    const double seconds = std::chrono::duration<double>(now - m_windowStart).count();
    const bool slow = static_cast<double>(bytes - m_windowBytes) < static_cast<double>(m_bytesPerSecond) * seconds;
    start(now, bytes);
    return slow;
}

size_t DeliveryRate::slowPieceBytes() const
{
    return static_cast<size_t>(std::max<uint64_t>(m_bytesPerSecond, 4096));
}
