#include "app/Gateway.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ops/AccessLog.h"
#include "ops/AdminServer.h"
#include "auth/BearerToken.h"
#include "config/DescriptorBudget.h"
#include "auth/DigestAuthenticator.h"
#include "app/RequestFilter.h"
#include "base/GatewayMetrics.h"
#include "auth/IdentityKey.h"
#include "base/ListenAddress.h"
#include "base/Logger.h"
#include "media/MediaCatalog.h"
#include "app/PluginLibrary.h"
#include "media/SampleMedia.h"
#include "ops/ServiceNotifier.h"
#include "ops/StatusBoard.h"
#include "app/StreamSink.h"
#include "talk/TalkDevices.h"
#include "app/UtilitySink.h"
#include "console/ConsoleServer.h"

namespace {

// The status file and the service manager's status line follow the counts at
// this pace, rather than on every event of the delivery threads.
constexpr auto kPublishInterval = std::chrono::milliseconds(200);

// Everything the signal loop drives once the server runs.
struct Running {
    const GatewayConfig& config;
    const ConfigReader& readConfig;
    const sigset_t& signals;
    GatewayMetrics& metrics;
    StatusBoard& status;
    ServiceNotifier& notifier;
    ReloadTargets reload;
    Logger& log;
    ConsoleServer& console;
};

// The next of the blocked signals within the interval; 0 when none came.
int nextSignal(const sigset_t& signals, std::chrono::milliseconds interval)
{
    struct timespec timeout;
    timeout.tv_sec = static_cast<time_t>(interval.count() / 1000);
    timeout.tv_nsec = static_cast<long>(interval.count() % 1000) * 1000000L;
    const int received = sigtimedwait(&signals, nullptr, &timeout);
    return received > 0 ? received : 0;
}

void publish(Running& run)
{
    run.status.publishIfChanged();
    char line[160];
    // What `systemctl status` shows: the ports too, so that a client's port is found there.
    snprintf(line, sizeof line, "%s on %d, audio on %d: %lld download(s), %lld talk(s) open",
             run.status.phase() == GatewayPhase::kStopping ? "stopping" : "ready", run.config.httpPort,
             run.config.audioTalkPort, static_cast<long long>(run.metrics.openDownloads()),
             static_cast<long long>(run.metrics.openTalks()));
    run.notifier.status(line);
}

// Serves until SIGINT or SIGTERM, reloading on SIGHUP; returns the stopping signal.
int serveUntilStopped(Running& run)
{
    for (;;) {
        const int received = nextSignal(run.signals, kPublishInterval);
        publish(run);
        if (received == SIGHUP) {
            run.log.logf(kLogInfo, "SIGHUP received: reloading users, devices and recordings");
            run.notifier.reloading();
            reloadGateway(run.readConfig, run.config, run.reload);
            run.notifier.ready("ready");
        } else if (received != 0) {
            return received;
        }
    }
}

// New work is refused already; waits for the running downloads to end, for the
// grace period at most, or until a second stop signal.
void drainDownloads(Running& run)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(run.config.shutdownGraceSeconds);
    if (run.metrics.openDownloads() > 0) {
        run.log.logf(kLogInfo, "%lld download(s) running get up to %d s to finish",
                     static_cast<long long>(run.metrics.openDownloads()), run.config.shutdownGraceSeconds);
    }
    while (run.metrics.openDownloads() > 0 && std::chrono::steady_clock::now() < deadline) {
        const int received = nextSignal(run.signals, std::chrono::milliseconds(50));
        publish(run);
        if (received == SIGINT || received == SIGTERM) {
            run.log.logf(kLogInfo, "%s received again: stopping at once", strsignal(received));
            return;
        }
        if (received == SIGHUP) {
            run.log.logf(kLogInfo, "SIGHUP received while stopping: not reloading");
        }
    }
    if (run.metrics.openDownloads() > 0) {
        run.log.logf(kLogWarn, "%lld download(s) still running after %d s; stopping them",
                     static_cast<long long>(run.metrics.openDownloads()), run.config.shutdownGraceSeconds);
    }
}

// Why the plug-in could not listen: each of its ports that cannot be had,
// named with the system's reason. Asked after the plug-in let go of its own.
std::string whyServerCannotListen(const GatewayConfig& config)
{
    std::string reasons;
    const std::pair<const char*, int> ports[] = {{"HTTP port", config.httpPort},
                                                 {"two-way audio port", config.audioTalkPort}};
    for (const auto& port : ports) {
        const std::string reason = whyCannotListen(ListenAddress{kPluginHost, port.second});
        if (!reason.empty()) {
            reasons += (reasons.empty() ? "" : "; ") + std::string(port.first) + " " +
                       listenAddressText(kPluginHost, port.second) + ": " + reason;
        }
    }
    return reasons.empty() ? "both ports can be had; the plug-in's lines above say what failed" : reasons;
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

// Plug-in loaded and initialised: create the server, serve until a signal, tear down.
int serve(PluginLibrary& plugin, StreamSink& sink, RequestFilter& filter, Running& run)
{
    const GatewayConfig& config = run.config;
    if (!offersHttp(plugin)) {
        run.log.logf(kLogError, "the plug-in %s does not offer an http server", config.pluginPath.c_str());
        return kExitStartFailed;
    }
    const std::string url = buildServerUrl(config);
    PROTOCOL_WRAPPER::IServer* server = plugin.createServer(url.c_str(), &sink, &filter);
    if (!server) {
        // What the failed start left behind is released only by DestroyServer;
        // once it is, the ports show which one the plug-in could not have.
        plugin.destroyServer(nullptr);
        run.log.logf(kLogError, "the plug-in's server did not start: %s", whyServerCannotListen(config).c_str());
        return kExitStartFailed;
    }
    sink.attachServer(server);
    run.status.setPhase(GatewayPhase::kReady, config.httpPort);
    run.notifier.ready("ready");
    const GatewayListeners listeners = run.status.snapshot().listeners;
    const std::string admin = listeners.admin.empty() ? "off" : "on http://" + listeners.admin;
    const std::string console = config.consoleEnabled ? "on " + run.console.url() : "off";
    run.log.logf(kLogInfo, "ready on http://%s, two-way audio on %s, admin endpoint %s, console %s (server URL %s)",
                 listeners.http.c_str(), listeners.audio.c_str(), admin.c_str(), console.c_str(), url.c_str());

    const int received = serveUntilStopped(run);
    run.log.logf(kLogInfo, "%s received, stopping", strsignal(received));
    // From here /healthz answers 503 and the filter refuses new work, so a proxy
    // sends new clients to another gateway while the running downloads end.
    run.status.setPhase(GatewayPhase::kStopping, config.httpPort);
    run.notifier.stopping("stopping");
    if (received == SIGTERM) {
        drainDownloads(run);
    }
    // The console's downloads and talks are the plug-in's clients: they end before its server.
    run.console.stop();
    // Downloads still running end with the server: they are counted as stopped,
    // not as clients that went away, although the plug-in closing their
    // connections looks like that to the delivery.
    sink.cutOffDownloads();
    // Returns once the plug-in has closed its connections and joined its threads.
    plugin.destroyServer(server);
    int left = sink.openStreamCount() + sink.openTalkCount();
    if (left != 0) {
        run.log.logf(kLogWarn, "%d stream(s) or talk(s) still open after the server stopped; closing them", left);
        sink.closeAll();
    }
    run.status.publishIfChanged();
    return kExitStopped;
}

bool prepareMedia(const GatewayConfig& config, MediaCatalog& catalog, Logger& log)
{
    struct stat folder;
    if (!config.writeSample && (stat(config.mediaFolder.c_str(), &folder) != 0 || !S_ISDIR(folder.st_mode))) {
        log.logf(kLogError, "media folder refused: %s is not a folder (give --sample to create it with demo data)",
                 config.mediaFolder.c_str());
        return false;
    }
    bool created = false;
    std::string error;
    auto library = std::make_shared<MediaLibrary>();
    if ((config.writeSample && !createSampleMediaIfEmpty(config.mediaFolder, config.devices, log, created, error)) ||
        !library->load(config.mediaFolder, config.devices, log, error, config.strictIndex)) {
        log.logf(kLogError, "media folder refused: %s", error.c_str());
        return false;
    }
    catalog.replace(std::move(library));
    return true;
}

}  // namespace

sigset_t blockStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // A client that hangs up must cost a failed write, not the process; so must a log or a capture that
    // reaches the operator's file size limit (ulimit -f), which clients make grow.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    return signals;
}

int runGateway(const GatewayConfig& configured, const ConfigReader& readConfig, const sigset_t& signals)
{
    GatewayConfig config = configured;
    Logger log;
    log.setLevel(config.logLevel);
    std::string error;
    if (!config.logFile.empty() && !log.openFile(config.logFile, error)) {
        log.logf(kLogError, "log file refused: %s", error.c_str());
        return kExitBadSetup;
    }
    const DescriptorBudget descriptors = applyDescriptorBudget(config);
    if (!descriptors.note.empty()) {
        log.logf(kLogWarn, "%s", descriptors.note.c_str());
    }
    if (config.adminEnabled && !config.adminTokenFile.empty() &&
        !readBearerTokenFile(config.adminTokenFile, config.adminToken, error)) {
        log.logf(kLogError, "admin.tokenFile refused: %s", error.c_str());
        return kExitBadSetup;
    }
    MediaCatalog catalog;
    if (!prepareMedia(config, catalog, log)) {
        return kExitBadSetup;
    }
    GatewayMetrics metrics;
    StatusBoard status(config.statusFile, metrics, log);
    status.setListeners(GatewayListeners{
        listenAddressText(kPluginHost, config.httpPort), listenAddressText(kPluginHost, config.audioTalkPort),
        config.adminEnabled ? listenAddressText(config.admin.host, config.admin.port) : std::string()});
    if (!status.setPhase(GatewayPhase::kStarting, config.httpPort)) {
        log.logf(kLogError, "statusFile refused: %s cannot be written", config.statusFile.c_str());
        return kExitBadSetup;
    }
    AccessLog accessLog(metrics, log);
    if (!config.accessLog.empty() &&
        !accessLog.open(config.accessLog, config.accessLogJson ? AccessLogFormat::kJson : AccessLogFormat::kCommon,
                        error)) {
        log.logf(kLogError, "log.access refused: %s", error.c_str());
        return kExitBadSetup;
    }

    // Nonces made before this moment are another run's: a header captured then is refused now.
    const int64_t startedAt = static_cast<int64_t>(time(nullptr));
    DigestAuthenticator authenticator(
        config.realm, passwordsOf(config), config.nonceLifetimeSeconds,
        [] { return static_cast<int64_t>(time(nullptr)); }, startedAt);
    TalkDevices talks;
    if (!talks.load(config, log, error)) {
        log.logf(kLogError, "talking devices refused: %s", error.c_str());
        return kExitBadSetup;
    }
    RequestFilter filter(authenticator, catalog, metrics, status, log,
                         FilterLimits{config.maxDownloads, config.maxTalksPerUser}, &talks, &accessLog);
    StreamSink sink(catalog, static_cast<size_t>(config.blockSize), metrics, &accessLog, log, &talks);
    sink.setMinimumRate(static_cast<uint64_t>(config.minDeliveryRate), config.minDeliveryRateSeconds);
    sink.setLoopDelivery(config.loopDelivery);
    UtilitySink utility(config, metrics, log);

    // Up before the plug-in, so that /healthz says "starting" while it loads.
    AdminServer admin(metrics, status, catalog, log);
    if (config.adminEnabled && !admin.start(config.admin, config.adminToken, error)) {
        log.logf(kLogError, "%s", error.c_str());
        return kExitStartFailed;
    }
    // Up before the plug-in too, so that a console port that cannot be had stops the start early.
    ConsoleServer console(config, catalog, talks, metrics, authenticator, log);
    if (config.consoleEnabled && !console.start(error)) {
        log.logf(kLogError, "%s", error.c_str());
        return kExitStartFailed;
    }
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
    if (!plugin.routeLogTo(log)) {
        log.logf(kLogWarn, "the plug-in's own log lines are written by its library, not escaped by this log");
    }
    int result = plugin.initialize(&utility);
    if (result != 0) {
        log.logf(kLogError, "InitializeProtocolWrapper failed: 0x%08x", static_cast<unsigned>(result));
        return kExitStartFailed;
    }
    ServiceNotifier notifier;
    Running run{config,
                readConfig,
                signals,
                metrics,
                status,
                notifier,
                ReloadTargets{authenticator, catalog, talks, accessLog, metrics, log},
                log,
                console};
    int exitCode = serve(plugin, sink, filter, run);
    plugin.uninitialize();
    log.logf(kLogInfo, "stopped");
    return exitCode;
}
