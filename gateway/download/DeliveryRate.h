// Whether a download keeps up the minimum delivery rate: the bytes the client
// took in each window of `seconds` (counted from the delivery's start, the
// next window beginning where the last one closed) must be at least
// bytesPerSecond times the window's length. As nginx's send_timeout and
// Apache's MinRate do, this ends the clients that read, but too slowly to be
// served in any useful time, and would otherwise hold a slot for hours.
#ifndef GATEWAY_DELIVERY_RATE_H
#define GATEWAY_DELIVERY_RATE_H

#include <chrono>
#include <cstddef>
#include <cstdint>

class DeliveryRate {
public:
    using Clock = std::chrono::steady_clock;

    // bytesPerSecond 0: no minimum.
    DeliveryRate(uint64_t bytesPerSecond, int seconds) : m_bytesPerSecond(bytesPerSecond), m_window(seconds) {}

    bool enabled() const { return m_bytesPerSecond != 0; }
    void start(Clock::time_point now, uint64_t bytes);
    // After a send, with the bytes taken so far: true when a window closed below the minimum.
    bool tooSlow(Clock::time_point now, uint64_t bytes);
    // The most a single Send should carry while the client is slow: a second's worth at the minimum
    // rate (4 KiB at least), so that a client keeping the minimum is looked at every second or so.
    size_t slowPieceBytes() const;

private:
    const uint64_t m_bytesPerSecond;
    const std::chrono::seconds m_window;
    Clock::time_point m_windowStart;
    uint64_t m_windowBytes = 0;
};

#endif  // GATEWAY_DELIVERY_RATE_H
