#include "config/GatewayConfig.h"

#include <algorithm>
#include <thread>

GatewayConfig defaultGatewayConfig()
{
    GatewayConfig config;
    config.users.push_back(UserAccount{kDefaultUser, kDefaultPassword});
    DeviceConfig device;
    device.devIndex = kDefaultDeviceIndex;
    device.name = "sample camera";
    device.folder = kDefaultDeviceIndex;
    device.talk.channel = 1;
    config.devices.push_back(device);
    return config;
}

const char* const kPluginOptIns =
    "&checkTalkBacklog=1&checkRequestText=1&sendRequestTarget=1&requireTalkSessionId=1&talkGatewayRefusal=1"
    "&strictSendTimeout=1&streamAbort=1";

int GatewayConfig::ioThreads() const
{
    const unsigned cores = std::thread::hardware_concurrency();
    return static_cast<int>(std::min(std::max(cores, 1u), 16u));
}

std::string listenAddressText(const std::string& host, int port)
{
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string buildServerUrl(const GatewayConfig& config)
{
    std::string url = std::string("http://") + kPluginHost + ":" + std::to_string(config.httpPort) +
                      "?work_thread=" + std::to_string(config.workThreads) +
                      "&sendTimeout=" + std::to_string(config.sendTimeoutMs) +
                      "&recvTimeout=" + std::to_string(config.recvTimeoutMs);
    // Always given: without it the plug-in would listen on a port no client can know.
    url += "&audioTalkPort=" + std::to_string(config.audioTalkPort);
    // The plug-in's opt-in behaviour beyond the interface's defaults, all on here.
    url += kPluginOptIns;
    if (config.loopDelivery && config.loopSendfile) {
        url += "&sendfile=1";
    }
    if (config.loopDelivery) {
        url += "&ioThreads=" + std::to_string(config.ioThreads());
    }
    url += "&headTimeout=" + std::to_string(config.headTimeoutMs) +
           "&maxConnections=" + std::to_string(config.maxConnections) +
           "&maxConnectionsPerAddress=" + std::to_string(config.maxConnectionsPerAddress) +
           "&reserveFds=" + std::to_string(config.reserveFds);
    return url;
}

void fillDefaultPaths(GatewayConfig& config, const std::string& executableDir)
{
    if (config.mediaFolder.empty()) {
        config.mediaFolder = executableDir + "/../media";
    }
    if (config.pluginPath.empty()) {
        config.pluginPath = executableDir + "/../lib/libHttpProtocolWrapper.so";
    }
}
