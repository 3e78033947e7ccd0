#include "frame/ServerOptions.h"

#include <limits.h>

#include <algorithm>

namespace HttpWrapper {

namespace {

bool isOn(const ServerParams& params, const char* key)
{
    ServerParams::const_iterator found = params.find(key);
    return found != params.end() && found->second == "1";
}

// A bound given as decimal digits only, at most INT_MAX; anything else is no bound.
int boundOf(const ServerParams& params, const char* key)
{
    ServerParams::const_iterator found = params.find(key);
    if (found == params.end() || found->second.empty() || found->second.size() > 10) {
        return 0;
    }
    long long value = 0;
    for (char c : found->second) {
        if (c < '0' || c > '9') {
            return 0;
        }
        value = value * 10 + (c - '0');
    }
    return value > INT_MAX ? 0 : static_cast<int>(value);
}

}  // namespace

CServerOptions CServerOptions::fromParams(const ServerParams& params)
{
    CServerOptions options;
    options.checkTalkBacklog = isOn(params, "checkTalkBacklog");
    options.checkRequestText = isOn(params, "checkRequestText");
    options.sendRequestTarget = isOn(params, "sendRequestTarget");
    options.requireTalkSessionId = isOn(params, "requireTalkSessionId");
    options.talkGatewayRefusal = isOn(params, "talkGatewayRefusal");
    options.headTimeoutMs = boundOf(params, "headTimeout");
    options.maxConnections = boundOf(params, "maxConnections");
    options.maxConnectionsPerAddress = boundOf(params, "maxConnectionsPerAddress");
    options.reserveFds = boundOf(params, "reserveFds");
    options.strictSendTimeout = isOn(params, "strictSendTimeout");
    options.streamAbort = isOn(params, "streamAbort");
    options.deliverySendfile = isOn(params, "sendfile");
    options.ioThreads = std::min(boundOf(params, "ioThreads"), 16);
    return options;
}

}  // namespace HttpWrapper
