// The gateway's JSON configuration file. Every field is optional; a field that
// is present must be valid and known, so that a typing error is refused at
// start rather than silently ignored. Layout (with the defaults):
//
// {
//   "server": {"httpPort": 8080, "audioTalkPort": <httpPort + 1>, "work_thread": 8,
//              "sendTimeout": 5000, "recvTimeout": 30000, "maxDownloads": 400,
//              "shutdownGraceSeconds": 30, "maxTalksPerUser": 4},
//   "auth":   {"realm": "media-gateway", "nonceLifetimeSeconds": 300,
//              "users": [{"name": "admin", "password": "..."}],   (required in a file; without
//                                                                  a file: admin / gateway-demo)
//              "supportSEPAuthMethod": false, "supportIdentifyToken": false},
//   "media":  {"folder": "", "blockSize": 32768,
//              "devices": [{"devIndex": "<36 characters>", "name": "", "address": "127.0.0.1",
//                           "rtspPort": 554, "folder": "<devIndex>"}]},
//   "log":    {"level": "info", "file": "", "access": "", "format": "common"},
//   "admin":  {"listen": "127.0.0.1:9464"},        (absent: no admin endpoint)
//   "statusFile": "",
//   "plugin": ""
// }
#ifndef GATEWAY_CONFIG_FILE_H
#define GATEWAY_CONFIG_FILE_H

#include <json/json.h>

#include <string>

#include "config/GatewayConfig.h"

// Most '[' and '{' a configuration file may hold: thousands of devices.
constexpr size_t kMaxConfigOpenings = 100000;

// Reads and parses the file; false with a message that names the file.
bool readConfigFile(const std::string& path, Json::Value& root, std::string& error);

// Where a configuration comes from. The built-in demo user exists only for a
// gateway started without a file: a file must name its users, so that a file
// that lost its "auth" section can never bring the demo password back.
enum class ConfigSource { kDefaults, kFile };

// Fills config from the defaults and the document; false with a message that
// begins with the offending field, e.g. "server.httpPort: must be ...".
bool parseGatewayConfig(const Json::Value& root, ConfigSource source, GatewayConfig& config, std::string& error);

#endif  // GATEWAY_CONFIG_FILE_H
