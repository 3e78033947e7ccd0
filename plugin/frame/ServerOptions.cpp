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
    return options;
}

}  // namespace HttpWrapper
