#include "Gateway.h"

#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <cstring>
#include <map>

#include "DigestAuthenticator.h"
#include "DownloadFilter.h"
#include "IdentityKey.h"
#include "Logger.h"
#include "MediaLibrary.h"
#include "PluginLibrary.h"
#include "SampleMedia.h"
#include "StatusBoard.h"
#include "StreamSink.h"
#include "TalkDevices.h"
#include "UtilitySink.h"

namespace {

// SIGHUP, an operator's habit for "reload", is logged and otherwise ignored
// until the gateway can reload; only SIGINT and SIGTERM stop it.
int waitForStopSignal(const sigset_t& stopSignals, Logger& log)
{
    for (;;) {
        int received = 0;
        if (sigwait(&stopSignals, &received) != 0) {
            continue;
        }
        if (received != SIGHUP) {
            return received;
        }
        log.logf(kLogInfo, "SIGHUP received: this gateway does not reload; it goes on as it is");
    }
}

bool offersHttp(PluginLibrary& plugin)
{
    char** protocols = nullptr;
    int count = plugin.supportedServerProtocols(&protocols);
    for (int i = 0; protocols && i < count; ++i) {
        if (protocols[i] && strcmp(protocols[i], "http") == 0) {
            return true;
        }
    }
    return false;
}

// The plug-in writes most of its lines with its own logging library rather than
// through the utility sink; that library reads WLOG_LEVEL and WLOG_FILE when it
// first logs. Pointing them at our level and file keeps one log, unless the
// user set them. Called while the process still has one thread.
void routePluginLog(const GatewayConfig& config)
{
    setenv("WLOG_LEVEL", std::to_string(config.logLevel).c_str(), 0);
    if (!config.logFile.empty()) {
        setenv("WLOG_FILE", config.logFile.c_str(), 0);
    }
}

std::map<std::string, std::string> passwordsOf(const GatewayConfig& config)
{
    std::map<std::string, std::string> passwords;
    for (const UserAccount& user : config.users) {
        passwords[user.name] = user.password;
    }
    return passwords;
}

// Plug-in loaded and initialised: create the server, serve until a signal, tear down.
int serve(const GatewayConfig& config, PluginLibrary& plugin, StreamSink& sink, DownloadFilter& filter,
          StatusBoard& status, Logger& log, const sigset_t& stopSignals)
{
    if (!offersHttp(plugin)) {
        log.logf(kLogError, "the plug-in %s does not offer an http server", config.pluginPath.c_str());
        return kExitStartFailed;
    }
    const std::string url = buildServerUrl(config);
    PROTOCOL_WRAPPER::IServer* server = plugin.createServer(url.c_str(), &sink, &filter);
    if (!server) {
        log.logf(kLogError, "CreateServer(%s) failed (is port %d in use?), plug-in error 0x%08x", url.c_str(),
                 config.httpPort, static_cast<unsigned>(plugin.lastError()));
        // What the failed start left behind is released only by DestroyServer.
        plugin.destroyServer(nullptr);
        return kExitStartFailed;
    }
    sink.attachServer(server);
    status.setReady(true, config.httpPort);
    log.logf(kLogInfo, "ready on http://127.0.0.1:%d (server URL %s)", config.httpPort, url.c_str());

    int received = waitForStopSignal(stopSignals, log);
    log.logf(kLogInfo, "%s received, stopping", strsignal(received));
    status.setReady(false, config.httpPort);
    // Returns once the plug-in has closed its connections and joined its threads.
    plugin.destroyServer(server);
    int left = sink.openStreamCount() + sink.openTalkCount();
    if (left != 0) {
        log.logf(kLogWarn, "%d stream(s) or talk(s) still open after the server stopped; closing them", left);
        sink.closeAll();
    }
    return kExitStopped;
}

}  // namespace

sigset_t blockStopSignals()
{
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // A client that hangs up must cost a failed write, not the process.
    signal(SIGPIPE, SIG_IGN);
    return stopSignals;
}

int runGateway(const GatewayConfig& config, const sigset_t& stopSignals)
{
    Logger log;
    log.setLevel(config.logLevel);
    std::string error;
    if (!config.logFile.empty() && !log.openFile(config.logFile, error)) {
        log.logf(kLogError, "log file refused: %s", error.c_str());
        return kExitBadSetup;
    }
    bool created = false;
    MediaLibrary library;
    struct stat folder;
    if (!config.writeSample && (stat(config.mediaFolder.c_str(), &folder) != 0 || !S_ISDIR(folder.st_mode))) {
        log.logf(kLogError, "media folder refused: %s is not a folder (give --sample to create it with demo data)",
                 config.mediaFolder.c_str());
        return kExitBadSetup;
    }
    if ((config.writeSample && !createSampleMediaIfEmpty(config.mediaFolder, config.devices, log, created, error)) ||
        !library.load(config.mediaFolder, config.devices, log, error, config.strictIndex)) {
        log.logf(kLogError, "media folder refused: %s", error.c_str());
        return kExitBadSetup;
    }
    StatusBoard status(config.statusFile, log);
    if (!status.setReady(false, config.httpPort)) {
        log.logf(kLogError, "statusFile refused: %s cannot be written", config.statusFile.c_str());
        return kExitBadSetup;
    }

    DigestAuthenticator authenticator(config.realm, passwordsOf(config), config.nonceLifetimeSeconds,
                                      [] { return static_cast<int64_t>(time(nullptr)); });
    TalkDevices talks;
    if (!talks.load(config, log, error)) {
        log.logf(kLogError, "talking devices refused: %s", error.c_str());
        return kExitBadSetup;
    }
    DownloadFilter filter(authenticator, library, status, log, &talks);
    StreamSink sink(library, static_cast<size_t>(config.blockSize), status, log, &talks);
    UtilitySink utility(config, log);

    if (config.supportIdentifyToken) {
        const std::string keyFile = identityKeyPath();
        if (!checkIdentityKeyFile(keyFile, error)) {
            log.logf(kLogError, "identity tokens are on, but their key file cannot be used: %s", error.c_str());
            return kExitStartFailed;
        }
    }

    // Declared last: unloaded first, after everything it may call back has stopped.
    routePluginLog(config);
    PluginLibrary plugin;
    if (!plugin.load(config.pluginPath, error)) {
        log.logf(kLogError, "cannot load the plug-in %s: %s", config.pluginPath.c_str(), error.c_str());
        return kExitStartFailed;
    }
    int result = plugin.initialize(&utility);
    if (result != 0) {
        log.logf(kLogError, "InitializeProtocolWrapper failed: 0x%08x", static_cast<unsigned>(result));
        return kExitStartFailed;
    }
    int exitCode = serve(config, plugin, sink, filter, status, log, stopSignals);
    plugin.uninitialize();
    log.logf(kLogInfo, "stopped");
    return exitCode;
}
