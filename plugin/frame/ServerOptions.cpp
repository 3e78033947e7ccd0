#include "frame/ServerOptions.h"

namespace HttpWrapper {

namespace {

bool isOn(const ServerParams& params, const char* key)
{
    ServerParams::const_iterator found = params.find(key);
    return found != params.end() && found->second == "1";
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
    return options;
}

}  // namespace HttpWrapper
