// How many descriptors the gateway may hold, and how many connections its two
// ports may hold in them. Each port of the plug-in holds up to
// maxConnections connections; open talks keep up to two more sockets each (the
// plug-in's 100 talks); the process has its own few (logs, event queues, the
// plug-in's listeners); and reserveFds stay free of connections. The gateway
// raises its soft limit towards the hard one as far as that needs, and where
// the limit is lower still, holds fewer connections per port, so that a flood
// on one port can never take the descriptors the other one needs.
#ifndef GATEWAY_DESCRIPTOR_BUDGET_H
#define GATEWAY_DESCRIPTOR_BUDGET_H

#include <string>

struct GatewayConfig;

constexpr int kTalkLinkDescriptors = 2 * 100;
constexpr int kOwnDescriptors = 64;
constexpr int kMinConnectionsPerPort = 16;

struct DescriptorBudget {
    int limit = 0;           // the soft limit after raising it
    int maxConnections = 0;  // per port, at most the configured number
    int maxConnectionsPerAddress = 0;
    int reserveFds = 0;  // at most the configured number, and a quarter of the limit
    std::string note;    // why fewer connections are held than configured, for the log; "" when not
};

// What limit (the process's soft limit, hard its ceiling) allows for config's bounds; needs no process.
DescriptorBudget planDescriptors(const GatewayConfig& config, int limit, int hard);

// Raises the process's soft limit as the plan asks, and puts the bounds that fit into config.
DescriptorBudget applyDescriptorBudget(GatewayConfig& config);

#endif  // GATEWAY_DESCRIPTOR_BUDGET_H
