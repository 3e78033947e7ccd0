#include "ops/GatewayReload.h"

#include <memory>
#include <vector>

#include "ops/AccessLog.h"
#include "auth/DigestAuthenticator.h"
#include "base/GatewayMetrics.h"
#include "base/Logger.h"
#include "media/MediaCatalog.h"
#include "talk/TalkDevices.h"

std::map<std::string, std::string> passwordsOf(const GatewayConfig& config)
{
    std::map<std::string, std::string> passwords;
    for (const UserAccount& user : config.users) {
        passwords[user.name] = user.password;
    }
    return passwords;
}

namespace {

// The fields of fresh that differ from running and that a reload does not
// apply ("server.httpPort", "auth.realm", ...).
std::vector<std::string> settingsNeedingRestart(const GatewayConfig& running, const GatewayConfig& fresh)
{
    std::vector<std::string> changed;
    const auto note = [&changed](const char* field, bool differs) {
        if (differs) {
            changed.push_back(field);
        }
    };
    note("server.httpPort", running.httpPort != fresh.httpPort);
    note("server.audioTalkPort", running.audioTalkPort != fresh.audioTalkPort);
    note("server.work_thread", running.workThreads != fresh.workThreads);
    note("server.sendTimeout", running.sendTimeoutMs != fresh.sendTimeoutMs);
    note("server.recvTimeout", running.recvTimeoutMs != fresh.recvTimeoutMs);
    note("server.maxDownloads", running.maxDownloads != fresh.maxDownloads);
    note("server.shutdownGraceSeconds", running.shutdownGraceSeconds != fresh.shutdownGraceSeconds);
    note("server.maxTalksPerUser", running.maxTalksPerUser != fresh.maxTalksPerUser);
    note("server.delivery", running.loopDelivery != fresh.loopDelivery || running.loopSendfile != fresh.loopSendfile);
    note("auth.realm", running.realm != fresh.realm);
    note("auth.nonceLifetimeSeconds", running.nonceLifetimeSeconds != fresh.nonceLifetimeSeconds);
    note("auth.supportSEPAuthMethod", running.supportSepAuthMethod != fresh.supportSepAuthMethod);
    note("auth.supportIdentifyToken", running.supportIdentifyToken != fresh.supportIdentifyToken);
    note("media.folder", running.mediaFolder != fresh.mediaFolder);
    note("media.blockSize", running.blockSize != fresh.blockSize);
    note("log.level", running.logLevel != fresh.logLevel);
    note("log.file", running.logFile != fresh.logFile);
    note("log.access", running.accessLog != fresh.accessLog);
    note("log.format", running.accessLogJson != fresh.accessLogJson);
    note("admin.listen", running.adminEnabled != fresh.adminEnabled || running.admin.host != fresh.admin.host ||
                             running.admin.port != fresh.admin.port);
    note("statusFile", running.statusFile != fresh.statusFile);
    note("plugin", running.pluginPath != fresh.pluginPath);
    return changed;
}

// Everything the reload will apply, read and checked before anything changes.
struct Reloaded {
    GatewayConfig fresh;  // as the file says now
    std::map<std::string, std::string> passwords;
    std::shared_ptr<MediaLibrary> library;
    std::shared_ptr<TalkDeviceSet> talks;
    std::string summary;  // for the log: what changes
};

// "a, b": the devices in one library and not in the other; "none" when there are none.
std::string devicesOnlyIn(const MediaLibrary& these, const MediaLibrary& others)
{
    std::string names;
    for (const DeviceMedia& device : these.devices()) {
        if (others.findByIndex(device.device.devIndex) == nullptr) {
            names += (names.empty() ? "" : ", ") + device.device.devIndex;
        }
    }
    return names.empty() ? "none" : names;
}

std::string summaryOf(const Reloaded& next, const MediaLibrary& previous, const GatewayConfig& running)
{
    size_t recordings = 0;
    for (const DeviceMedia& device : next.library->devices()) {
        recordings += device.recordings.size();
    }
    std::string summary = std::to_string(next.fresh.users.size()) + " user(s), " + std::to_string(recordings) +
                          " recording(s) of " + std::to_string(next.library->devices().size()) + " device(s), " +
                          std::to_string(next.talks->size()) +
                          " of them talking; devices added: " + devicesOnlyIn(*next.library, previous);
    const std::string removed = devicesOnlyIn(previous, *next.library);
    summary += "; removed: " + removed + (removed == "none" ? "" : " (what runs on them goes on to its end)");
    std::string restart;
    for (const std::string& field : settingsNeedingRestart(running, next.fresh)) {
        restart += (restart.empty() ? "" : ", ") + field;
    }
    if (!restart.empty()) {
        summary += "; changed but taking effect at the next start: " + restart;
    }
    return summary;
}

bool readEverything(const ConfigReader& readConfig, const GatewayConfig& running, ReloadTargets& targets,
                    Reloaded& next, std::string& error)
{
    if (!readConfig(next.fresh, error)) {
        return false;
    }
    next.passwords = passwordsOf(next.fresh);
    // Users and devices come from the new reading; everything else stays as
    // it started (the media folder among it: a device's folder is in it).
    GatewayConfig applied = running;
    applied.users = next.fresh.users;
    applied.devices = next.fresh.devices;
    next.library = std::make_shared<MediaLibrary>();
    const std::shared_ptr<const MediaLibrary> current = targets.catalog.current();
    if (!next.library->load(applied.mediaFolder, applied.devices, targets.log, error, applied.strictIndex,
                            current.get())) {
        return false;
    }
    next.talks = std::make_shared<TalkDeviceSet>();
    if (!next.talks->load(applied, targets.log, error)) {
        error = "talking devices refused: " + error;
        return false;
    }
    next.summary = summaryOf(next, *current, running);
    return true;
}

}  // namespace

bool reloadGateway(const ConfigReader& readConfig, const GatewayConfig& running, ReloadTargets targets)
{
    targets.accessLog.reopen();
    Reloaded next;
    std::string error;
    bool ready = false;
    try {
        ready = readEverything(readConfig, running, targets, next, error);
    } catch (const std::exception& failure) {
        error = failure.what();  // whatever went wrong, the running gateway goes on as it was
    }
    if (!ready) {
        targets.log.logf(kLogError, "reload refused: %s; users, devices and recordings stay as they were",
                         error.c_str());
        targets.metrics.reloaded(false);
        return false;
    }
    // Nothing here can fail: the new users, devices and recordings take over together.
    targets.authenticator.replacePasswords(std::move(next.passwords));
    targets.catalog.replace(std::move(next.library));
    targets.talks.replace(std::move(next.talks));
    targets.metrics.reloaded(true);
    targets.log.logf(kLogInfo, "reloaded: %s", next.summary.c_str());
    return true;
}
