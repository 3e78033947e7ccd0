#include "config/DescriptorBudget.h"

#include <sys/resource.h>

#include <algorithm>
#include <climits>

#include "config/GatewayConfig.h"

namespace {

int needed(const GatewayConfig& config)
{
    const long long total = 2LL * config.maxConnections + config.reserveFds + kTalkLinkDescriptors + kOwnDescriptors;
    return static_cast<int>(std::min<long long>(total, INT_MAX));
}

int clampedLimit(rlim_t value)
{
    return value == RLIM_INFINITY || value > static_cast<rlim_t>(INT_MAX) ? INT_MAX : static_cast<int>(value);
}

}  // namespace

DescriptorBudget planDescriptors(const GatewayConfig& config, int limit, int hard)
{
    DescriptorBudget budget;
    budget.limit = std::max(limit, std::min(hard, needed(config)));
    // A reserve that took most of a small limit would leave no connection at all.
    budget.reserveFds = std::min(config.reserveFds, budget.limit / 4);
    const long long forConnections =
        static_cast<long long>(budget.limit) - budget.reserveFds - kTalkLinkDescriptors - kOwnDescriptors;
    const int perPort = static_cast<int>(std::max<long long>(kMinConnectionsPerPort, forConnections / 2));
    budget.maxConnections = std::min(config.maxConnections, perPort);
    budget.maxConnectionsPerAddress = std::min(config.maxConnectionsPerAddress, budget.maxConnections);
    if (budget.maxConnections < config.maxConnections || budget.reserveFds < config.reserveFds) {
        budget.note = "descriptor limit " + std::to_string(budget.limit) + " holds " +
                      std::to_string(budget.maxConnections) + " connections per port and keeps " +
                      std::to_string(budget.reserveFds) + " descriptors in reserve (server.maxConnections " +
                      std::to_string(config.maxConnections) + ", server.reserveFds " +
                      std::to_string(config.reserveFds) + "); raise the limit (LimitNOFILE=) for more";
    }
    return budget;
}

DescriptorBudget applyDescriptorBudget(GatewayConfig& config)
{
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        limit.rlim_cur = limit.rlim_max = 1024;
    }
    DescriptorBudget budget = planDescriptors(config, clampedLimit(limit.rlim_cur), clampedLimit(limit.rlim_max));
    if (budget.limit > clampedLimit(limit.rlim_cur)) {
        limit.rlim_cur = static_cast<rlim_t>(budget.limit);
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            getrlimit(RLIMIT_NOFILE, &limit);
            budget = planDescriptors(config, clampedLimit(limit.rlim_cur), clampedLimit(limit.rlim_cur));
        }
    }
    config.maxConnections = budget.maxConnections;
    config.maxConnectionsPerAddress = budget.maxConnectionsPerAddress;
    config.reserveFds = budget.reserveFds;
    return budget;
}
