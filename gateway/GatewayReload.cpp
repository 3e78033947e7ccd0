#include "GatewayReload.h"

#include <memory>

#include "AccessLog.h"
#include "DigestAuthenticator.h"
#include "GatewayMetrics.h"
#include "Logger.h"
#include "MediaCatalog.h"

std::map<std::string, std::string> passwordsOf(const GatewayConfig& config)
{
    std::map<std::string, std::string> passwords;
    for (const UserAccount& user : config.users) {
        passwords[user.name] = user.password;
    }
    return passwords;
}

namespace {

// Everything the reload will apply, read and checked before anything changes.
bool readEverything(const ConfigReader& readConfig, const GatewayConfig& running, ReloadTargets& targets,
                    GatewayConfig& fresh, std::shared_ptr<MediaLibrary>& library, std::string& error)
{
    if (!readConfig(fresh, error)) {
        return false;
    }
    // The devices and their folders are the running ones: a talk or a download
    // may be using them, and the talking devices were set up for them at start.
    library = std::make_shared<MediaLibrary>();
    const std::shared_ptr<const MediaLibrary> current = targets.catalog.current();
    return library->load(running.mediaFolder, running.devices, targets.log, error, running.strictIndex, current.get());
}

}  // namespace

bool reloadGateway(const ConfigReader& readConfig, const GatewayConfig& running, ReloadTargets targets)
{
    targets.accessLog.reopen();
    GatewayConfig fresh;
    std::shared_ptr<MediaLibrary> library;
    std::string error;
    bool ready = false;
    try {
        ready = readEverything(readConfig, running, targets, fresh, library, error);
    } catch (const std::exception& failure) {
        error = failure.what();  // whatever went wrong, the running gateway goes on as it was
    }
    if (!ready) {
        targets.log.logf(kLogError, "reload refused: %s; users and recordings stay as they were", error.c_str());
        targets.metrics.reloaded(false);
        return false;
    }
    size_t recordings = 0;
    for (const DeviceMedia& device : library->devices()) {
        recordings += device.recordings.size();
    }
    targets.authenticator.replacePasswords(passwordsOf(fresh));
    targets.catalog.replace(std::move(library));
    targets.metrics.reloaded(true);
    targets.log.logf(kLogInfo,
                     "reloaded: %zu user(s), %zu recording(s) of %zu device(s); settings other than users and "
                     "recordings take effect at the next start",
                     fresh.users.size(), recordings, running.devices.size());
    return true;
}
