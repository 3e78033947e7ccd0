#include "GatewayConfig.h"

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

std::string buildServerUrl(const GatewayConfig& config)
{
    std::string url =
        "http://127.0.0.1:" + std::to_string(config.httpPort) + "?work_thread=" + std::to_string(config.workThreads) +
        "&sendTimeout=" + std::to_string(config.sendTimeoutMs) + "&recvTimeout=" + std::to_string(config.recvTimeoutMs);
    if (config.audioTalkPort != 0) {
        url += "&audioTalkPort=" + std::to_string(config.audioTalkPort);
    }
    // The plug-in's opt-in bounds beyond the interface's defaults, all on here.
    url += "&checkTalkBacklog=1";
    url += "&headTimeout=" + std::to_string(config.headTimeoutMs) +
           "&maxConnections=" + std::to_string(config.maxConnections) +
           "&maxConnectionsPerAddress=" + std::to_string(config.maxConnectionsPerAddress) +
           "&reserveFds=" + std::to_string(config.reserveFds);
    url += "&strictSendTimeout=1&streamAbort=1";
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
