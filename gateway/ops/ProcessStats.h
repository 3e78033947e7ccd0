// What the gateway process holds, read from /proc when /metrics is asked for:
// the figures an operator compares with the host's limits.
#ifndef GATEWAY_PROCESS_STATS_H
#define GATEWAY_PROCESS_STATS_H

#include <cstdint>

struct ProcessStats {
    uint64_t residentBytes = 0;
    uint64_t virtualBytes = 0;
    int threads = 0;
    int openDescriptors = 0;
    uint64_t maxDescriptors = 0;  // the soft limit new descriptors meet
    double cpuSeconds = 0;        // user and system
    double startTimeSeconds = 0;  // since the epoch
};

// Fields that cannot be read stay 0.
ProcessStats readProcessStats();

#endif  // GATEWAY_PROCESS_STATS_H
