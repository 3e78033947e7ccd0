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

const char* const kPluginOptIns =
    "&checkTalkBacklog=1&checkRequestText=1&sendRequestTarget=1&requireTalkSessionId=1&talkGatewayRefusal=1";

std::string buildServerUrl(const GatewayConfig& config)
{
    std::string url =
        "http://127.0.0.1:" + std::to_string(config.httpPort) + "?work_thread=" + std::to_string(config.workThreads) +
        "&sendTimeout=" + std::to_string(config.sendTimeoutMs) + "&recvTimeout=" + std::to_string(config.recvTimeoutMs);
    if (config.audioTalkPort != 0) {
        url += "&audioTalkPort=" + std::to_string(config.audioTalkPort);
    }
    // The plug-in's opt-in bounds beyond the interface's defaults, all on here.
    url += kPluginOptIns;
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
