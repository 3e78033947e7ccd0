#include "config/ConfigFile.h"

#include <set>
#include <utility>

#include "auth/BearerToken.h"
#include "base/JsonFile.h"
#include "base/Logger.h"

namespace {

struct ConfigProblem {
    std::string field;
    std::string message;
};

std::string join(const std::string& parent, const std::string& key)
{
    return parent.empty() ? key : parent + "." + key;
}

void requireObject(const Json::Value& value, const std::string& field, std::initializer_list<const char*> known)
{
    if (!value.isObject()) {
        throw ConfigProblem{field.empty() ? "(document)" : field, "must be a JSON object"};
    }
    for (const std::string& name : value.getMemberNames()) {
        bool isKnown = false;
        for (const char* candidate : known) {
            isKnown = isKnown || name == candidate;
        }
        if (!isKnown) {
            throw ConfigProblem{join(field, name), "unknown field"};
        }
    }
}

void readInt(const Json::Value& parent, const std::string& parentField, const char* key, int min, int max, int& out)
{
    if (!parent.isMember(key)) {
        return;
    }
    const Json::Value& value = parent[key];
    if (!value.isInt() || value.asInt() < min || value.asInt() > max) {
        throw ConfigProblem{join(parentField, key),
                            "must be an integer from " + std::to_string(min) + " to " + std::to_string(max)};
    }
    out = value.asInt();
}

void readBool(const Json::Value& parent, const std::string& parentField, const char* key, bool& out)
{
    if (!parent.isMember(key)) {
        return;
    }
    if (!parent[key].isBool()) {
        throw ConfigProblem{join(parentField, key), "must be true or false"};
    }
    out = parent[key].asBool();
}

void readString(const Json::Value& parent, const std::string& parentField, const char* key, std::string& out)
{
    if (!parent.isMember(key)) {
        return;
    }
    if (!parent[key].isString()) {
        throw ConfigProblem{join(parentField, key), "must be a string"};
    }
    out = parent[key].asString();
}

// Text that goes into a quoted header parameter or a URL must stay printable and unquoted.
void requirePlainText(const std::string& text, const std::string& field, const char* forbidden, size_t maxLength)
{
    if (text.empty() || text.size() > maxLength) {
        throw ConfigProblem{field, "must have 1 to " + std::to_string(maxLength) + " characters"};
    }
    for (char c : text) {
        if (c < 0x20 || c == 0x7f || std::string(forbidden).find(c) != std::string::npos) {
            throw ConfigProblem{field, std::string("must not contain control characters or any of ") + forbidden};
        }
    }
}

bool isDeviceIndexChar(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
}

bool isFolderName(const std::string& name)
{
    if (name.empty() || name == "." || name == "..") {
        return false;
    }
    for (char c : name) {
        if (!isDeviceIndexChar(c) && c != '_' && c != '.') {
            return false;
        }
    }
    return true;
}

void readServer(const Json::Value& server, GatewayConfig& config)
{
    const std::string field = "server";
    requireObject(server, field,
                  {"httpPort", "audioTalkPort", "work_thread", "sendTimeout", "recvTimeout", "maxDownloads",
                   "shutdownGraceSeconds", "maxTalksPerUser", "headTimeout", "maxConnections",
                   "maxConnectionsPerAddress", "reserveFds", "minDeliveryRate", "minDeliveryRateSeconds", "delivery"});
    readInt(server, field, "httpPort", 1, 65535, config.httpPort);
    readInt(server, field, "audioTalkPort", 1, 65535, config.audioTalkPort);
    // The plug-in takes these modulo 65536, so larger values would wrap around.
    readInt(server, field, "work_thread", 1, 256, config.workThreads);
    readInt(server, field, "sendTimeout", 1, 65535, config.sendTimeoutMs);
    readInt(server, field, "recvTimeout", 1, 65535, config.recvTimeoutMs);
    readInt(server, field, "maxDownloads", 1, 400, config.maxDownloads);
    readInt(server, field, "shutdownGraceSeconds", 0, 3600, config.shutdownGraceSeconds);
    readInt(server, field, "maxTalksPerUser", 1, 100, config.maxTalksPerUser);
    readInt(server, field, "headTimeout", 100, 65535, config.headTimeoutMs);
    readInt(server, field, "maxConnections", 16, 1000000, config.maxConnections);
    readInt(server, field, "maxConnectionsPerAddress", 1, 1000000, config.maxConnectionsPerAddress);
    readInt(server, field, "reserveFds", 16, 1000000, config.reserveFds);
    readInt(server, field, "minDeliveryRate", 0, 1 << 30, config.minDeliveryRate);
    readInt(server, field, "minDeliveryRateSeconds", 5, 3600, config.minDeliveryRateSeconds);
    std::string delivery = !config.loopDelivery ? "blocking" : config.loopSendfile ? "loop-sendfile" : "loop";
    readString(server, field, "delivery", delivery);
    if (delivery != "loop" && delivery != "loop-sendfile" && delivery != "blocking") {
        throw ConfigProblem{"server.delivery", "must be loop, loop-sendfile or blocking"};
    }
    config.loopDelivery = delivery != "blocking";
    config.loopSendfile = delivery == "loop-sendfile";
}

// Every listener has a port known before the start: the audio channel's is the
// one after the HTTP port unless given, which is where the talk tool looks.
void settleAudioTalkPort(GatewayConfig& config)
{
    if (config.audioTalkPort == 0) {
        if (config.httpPort == 65535) {
            throw ConfigProblem{"server.audioTalkPort", "must be given when server.httpPort is 65535"};
        }
        config.audioTalkPort = config.httpPort + 1;
    }
    if (config.audioTalkPort == config.httpPort) {
        throw ConfigProblem{"server.audioTalkPort", "must differ from server.httpPort"};
    }
}

void readUsers(const Json::Value& users, GatewayConfig& config)
{
    const std::string field = "auth.users";
    if (!users.isArray() || users.empty()) {
        throw ConfigProblem{field, "must be a non-empty array"};
    }
    config.users.clear();
    std::set<std::string> names;
    for (Json::ArrayIndex i = 0; i < users.size(); ++i) {
        const std::string entry = field + "[" + std::to_string(i) + "]";
        requireObject(users[i], entry, {"name", "password"});
        UserAccount account;
        if (!users[i].isMember("name") || !users[i].isMember("password")) {
            throw ConfigProblem{entry, "needs a name and a password"};
        }
        readString(users[i], entry, "name", account.name);
        readString(users[i], entry, "password", account.password);
        requirePlainText(account.name, entry + ".name", ":\"\\", 64);
        if (account.password.empty()) {
            throw ConfigProblem{entry + ".password", "must not be empty"};
        }
        if (!names.insert(account.name).second) {
            throw ConfigProblem{entry + ".name", "\"" + account.name + "\" is listed twice"};
        }
        config.users.push_back(account);
    }
}

void readAuth(const Json::Value& auth, GatewayConfig& config)
{
    const std::string field = "auth";
    requireObject(auth, field,
                  {"realm", "nonceLifetimeSeconds", "users", "supportSEPAuthMethod", "supportIdentifyToken"});
    readString(auth, field, "realm", config.realm);
    requirePlainText(config.realm, "auth.realm", "\"\\", 100);
    readInt(auth, field, "nonceLifetimeSeconds", 1, 86400, config.nonceLifetimeSeconds);
    readBool(auth, field, "supportSEPAuthMethod", config.supportSepAuthMethod);
    readBool(auth, field, "supportIdentifyToken", config.supportIdentifyToken);
    if (auth.isMember("users")) {
        readUsers(auth["users"], config);
    }
}

void readTalk(const Json::Value& talk, const std::string& field, TalkConfig& config)
{
    requireObject(talk, field, {"enabled", "channel", "codec", "source", "capture"});
    readBool(talk, field, "enabled", config.enabled);
    readInt(talk, field, "channel", 1, 99999, config.channel);
    readString(talk, field, "codec", config.codec);
    if (config.codec != "PCMU" && config.codec != "PCMA" && config.codec != "G726-16" && config.codec != "G7221") {
        throw ConfigProblem{field + ".codec", "must be one of PCMU, PCMA, G726-16, G7221"};
    }
    readString(talk, field, "source", config.source);
    readBool(talk, field, "capture", config.capture);
}

void readDevices(const Json::Value& devices, GatewayConfig& config)
{
    const std::string field = "media.devices";
    if (!devices.isArray()) {
        throw ConfigProblem{field, "must be an array"};
    }
    config.devices.clear();
    std::set<std::string> indexes, folders;
    std::set<std::pair<std::string, int>> endpoints;
    std::set<int> channels;
    for (Json::ArrayIndex i = 0; i < devices.size(); ++i) {
        const std::string entry = field + "[" + std::to_string(i) + "]";
        requireObject(devices[i], entry, {"devIndex", "name", "address", "rtspPort", "folder", "talk"});
        DeviceConfig device;
        readString(devices[i], entry, "devIndex", device.devIndex);
        if (device.devIndex.size() != 36 ||
            device.devIndex.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-") !=
                std::string::npos) {
            // Clients send it as the 36-character "devIndex" of the JSON download form.
            throw ConfigProblem{entry + ".devIndex", "must be 36 letters, digits or '-'"};
        }
        readString(devices[i], entry, "name", device.name);
        readString(devices[i], entry, "address", device.address);
        requirePlainText(device.address, entry + ".address", "/:?&#@ \"\\", 253);
        readInt(devices[i], entry, "rtspPort", 1, 65535, device.rtspPort);
        device.folder = device.devIndex;
        readString(devices[i], entry, "folder", device.folder);
        if (!isFolderName(device.folder)) {
            throw ConfigProblem{entry + ".folder", "must be a plain folder name (letters, digits, '-', '_', '.')"};
        }
        if (!indexes.insert(device.devIndex).second) {
            throw ConfigProblem{entry + ".devIndex", "\"" + device.devIndex + "\" is listed twice"};
        }
        if (!folders.insert(device.folder).second) {
            throw ConfigProblem{entry + ".folder", "\"" + device.folder + "\" is used by another device"};
        }
        if (!endpoints.insert({device.address, device.rtspPort}).second) {
            throw ConfigProblem{entry + ".rtspPort", "another device has the same address and rtspPort"};
        }
        if (devices[i].isMember("talk")) {
            readTalk(devices[i]["talk"], entry + ".talk", device.talk);
        }
        if (device.talk.channel == 0) {
            device.talk.channel = static_cast<int>(i) + 1;
        }
        if (device.talk.enabled && !channels.insert(device.talk.channel).second) {
            throw ConfigProblem{entry + ".talk.channel",
                                "channel " + std::to_string(device.talk.channel) + " is used by another device"};
        }
        config.devices.push_back(device);
    }
}

void readMedia(const Json::Value& media, GatewayConfig& config)
{
    const std::string field = "media";
    requireObject(media, field, {"folder", "blockSize", "devices"});
    readString(media, field, "folder", config.mediaFolder);
    if (media.isMember("blockSize") && media["blockSize"].isInt() && media["blockSize"].asInt() > kMaxBlockSize) {
        // Every running download holds a block: a larger one multiplies the memory clients can make us hold.
        throw ConfigProblem{"media.blockSize", "must be at most " + std::to_string(kMaxBlockSize) +
                                                   " (1 MiB): every running download holds one block in memory"};
    }
    readInt(media, field, "blockSize", 1024, kMaxBlockSize, config.blockSize);
    if (media.isMember("devices")) {
        readDevices(media["devices"], config);
    }
}

void readLog(const Json::Value& log, GatewayConfig& config)
{
    const std::string field = "log";
    requireObject(log, field, {"level", "file", "access", "format"});
    std::string level;
    readString(log, field, "level", level);
    if (log.isMember("level") && !parseLogLevel(level, config.logLevel)) {
        throw ConfigProblem{"log.level", "must be one of debug, info, warn, error"};
    }
    readString(log, field, "file", config.logFile);
    readString(log, field, "access", config.accessLog);
    std::string format = "common";
    readString(log, field, "format", format);
    if (format != "common" && format != "json") {
        throw ConfigProblem{"log.format", "must be common or json"};
    }
    config.accessLogJson = format == "json";
}

void readAdmin(const Json::Value& admin, GatewayConfig& config)
{
    const std::string field = "admin";
    requireObject(admin, field, {"listen", "token", "tokenFile"});
    if (!admin.isMember("listen")) {
        throw ConfigProblem{"admin.listen", "is required to turn the admin endpoint on"};
    }
    std::string listen, error;
    readString(admin, field, "listen", listen);
    if (!parseListenAddress(listen, config.admin, error)) {
        throw ConfigProblem{"admin.listen", error};
    }
    readString(admin, field, "token", config.adminToken);
    readString(admin, field, "tokenFile", config.adminTokenFile);
    if (admin.isMember("token") && !isUsableBearerToken(config.adminToken)) {
        throw ConfigProblem{"admin.token", kBearerTokenRule};
    }
    if (admin.isMember("token") && admin.isMember("tokenFile")) {
        throw ConfigProblem{"admin.tokenFile", "give admin.token or admin.tokenFile, not both"};
    }
    // The endpoint lists devices, their addresses and ready playback URIs: off the loopback
    // interface nobody may read it without the token.
    if (!isLoopbackAddress(config.admin.host) && config.adminToken.empty() && config.adminTokenFile.empty()) {
        throw ConfigProblem{"admin.listen", listen + " is not a loopback address: set admin.token or admin.tokenFile"};
    }
    if (config.admin.port == config.httpPort || config.admin.port == config.audioTalkPort) {
        throw ConfigProblem{"admin.listen", "port " + std::to_string(config.admin.port) + " is the plug-in's"};
    }
    config.adminEnabled = true;
}

void readConsole(const Json::Value& console, GatewayConfig& config)
{
    const std::string field = "console";
    requireObject(console, field, {"listen", "certificate", "key", "sessionMinutes"});
    if (!console.isMember("listen")) {
        throw ConfigProblem{"console.listen", "is required to turn the console on"};
    }
    std::string listen, error;
    readString(console, field, "listen", listen);
    if (!parseListenAddress(listen, config.console, error)) {
        throw ConfigProblem{"console.listen", error};
    }
    readString(console, field, "certificate", config.consoleCertificate);
    readString(console, field, "key", config.consoleKey);
    readInt(console, field, "sessionMinutes", 1, 24 * 60, config.consoleSessionMinutes);
    if (config.consoleCertificate.empty() != config.consoleKey.empty()) {
        throw ConfigProblem{"console.key", "give console.certificate and console.key together"};
    }
    // Passwords and session cookies cross this link: off the loopback interface only over TLS.
    if (!isLoopbackAddress(config.console.host) && config.consoleCertificate.empty()) {
        throw ConfigProblem{"console.listen",
                            listen + " is not a loopback address: set console.certificate and console.key"};
    }
    const int port = config.console.port;
    if (port == config.httpPort || port == config.audioTalkPort || (config.adminEnabled && port == config.admin.port)) {
        throw ConfigProblem{"console.listen", "port " + std::to_string(port) + " is taken by another listener"};
    }
    config.consoleEnabled = true;
}

}  // namespace

bool readConfigFile(const std::string& path, Json::Value& root, std::string& error)
{
    return readJsonFile(path, kMaxConfigOpenings, root, error);
}

bool parseGatewayConfig(const Json::Value& root, ConfigSource source, GatewayConfig& config, std::string& error)
{
    config = defaultGatewayConfig();
    if (source == ConfigSource::kFile) {
        config.users.clear();
    }
    if (root.isNull() && source == ConfigSource::kDefaults) {
        settleAudioTalkPort(config);  // 8081 beside the default 8080: no refusal possible
        return true;
    }
    try {
        requireObject(root, "", {"server", "auth", "media", "log", "admin", "console", "statusFile", "plugin"});
        if (root.isMember("server")) {
            readServer(root["server"], config);
        }
        settleAudioTalkPort(config);
        if (root.isMember("auth")) {
            readAuth(root["auth"], config);
        }
        if (root.isMember("media")) {
            readMedia(root["media"], config);
        }
        if (root.isMember("log")) {
            readLog(root["log"], config);
        }
        if (root.isMember("admin")) {
            readAdmin(root["admin"], config);
        }
        if (root.isMember("console")) {
            readConsole(root["console"], config);
        }
        readString(root, "", "statusFile", config.statusFile);
        readString(root, "", "plugin", config.pluginPath);
        if (source == ConfigSource::kFile && config.users.empty()) {
            throw ConfigProblem{"auth.users",
                                "a configuration file must name its users (the demo user exists only "
                                "for a gateway started without one)"};
        }
    } catch (const ConfigProblem& problem) {
        error = problem.field + ": " + problem.message;
        return false;
    }
    return true;
}
