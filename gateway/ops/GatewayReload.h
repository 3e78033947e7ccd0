// What SIGHUP changes in a running gateway: the users and the devices (from the
// configuration file, read again with the same command-line overrides), the
// recordings indexes of the devices, and the talking devices' audio. A device
// that is added serves at once; one that is removed takes no new request, while
// its running downloads and talks go on to their end. Other settings (ports,
// folders, realm, limits, logs, admin endpoint) take effect at the next start;
// a reload that finds them changed says which. The access log is opened again
// by its name, so log rotation needs no restart either.
#ifndef GATEWAY_GATEWAY_RELOAD_H
#define GATEWAY_GATEWAY_RELOAD_H

#include <functional>
#include <map>
#include <string>

#include "config/GatewayConfig.h"

class AccessLog;
class DigestAuthenticator;
class GatewayMetrics;
class Logger;
class MediaCatalog;
class TalkDevices;

// Reads the configuration as at start; false with a message naming the field or file.
using ConfigReader = std::function<bool(GatewayConfig& config, std::string& error)>;

std::map<std::string, std::string> passwordsOf(const GatewayConfig& config);

struct ReloadTargets {
    DigestAuthenticator& authenticator;
    MediaCatalog& catalog;
    TalkDevices& talks;
    AccessLog& accessLog;
    GatewayMetrics& metrics;
    Logger& log;
};

// Applies the configuration as it is now, all or nothing: everything is read
// and checked first (the configuration's own rules, among them unique
// devIndex, folder, address and rtspPort, and talk channel; every index; every
// talking device's audio), and a failure leaves users, devices and recordings
// as they were (logged with its cause, counted as a failed reload).
bool reloadGateway(const ConfigReader& readConfig, const GatewayConfig& running, ReloadTargets targets);

#endif  // GATEWAY_GATEWAY_RELOAD_H
