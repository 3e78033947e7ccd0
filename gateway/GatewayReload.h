// What SIGHUP changes in a running gateway: the users (from the configuration
// file, read again with the same command-line overrides) and the recordings
// indexes of the configured devices. Downloads and talks that run go on
// untouched; other settings (ports, devices, folders, realm, admin endpoint)
// take effect at the next start. The access log is opened again by its name,
// so log rotation needs no restart either.
#ifndef GATEWAY_GATEWAY_RELOAD_H
#define GATEWAY_GATEWAY_RELOAD_H

#include <functional>
#include <map>
#include <string>

#include "GatewayConfig.h"

class AccessLog;
class DigestAuthenticator;
class GatewayMetrics;
class Logger;
class MediaCatalog;

// Reads the configuration as at start; false with a message naming the field or file.
using ConfigReader = std::function<bool(GatewayConfig& config, std::string& error)>;

std::map<std::string, std::string> passwordsOf(const GatewayConfig& config);

struct ReloadTargets {
    DigestAuthenticator& authenticator;
    MediaCatalog& catalog;
    AccessLog& accessLog;
    GatewayMetrics& metrics;
    Logger& log;
};

// Applies the configuration as it is now; a configuration or an index that is
// refused leaves everything as it was (logged, counted as a failed reload).
bool reloadGateway(const ConfigReader& readConfig, const GatewayConfig& running, ReloadTargets targets);

#endif  // GATEWAY_GATEWAY_RELOAD_H
