// Seconds on the process's steady clock, for limits that count time (talk
// opens waiting, login throttling) and must not jump with the wall clock.
#ifndef GATEWAY_STEADY_CLOCK_H
#define GATEWAY_STEADY_CLOCK_H

#include <chrono>
#include <cstdint>

inline int64_t steadySeconds()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

#endif  // GATEWAY_STEADY_CLOCK_H
