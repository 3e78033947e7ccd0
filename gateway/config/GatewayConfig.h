// Everything the gateway can be told, with the defaults that let it run with
// no configuration file at all.
#ifndef GATEWAY_CONFIG_H
#define GATEWAY_CONFIG_H

#include <string>
#include <vector>

#include "base/ListenAddress.h"

// Documented in README.md; change it for anything but a local demonstration.
constexpr const char* kDefaultUser = "admin";
constexpr const char* kDefaultPassword = "gateway-demo";
constexpr const char* kDefaultDeviceIndex = "8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41";
// The plug-in listens on loopback only, both on the HTTP and the audio port.
constexpr const char* kPluginHost = "127.0.0.1";

struct UserAccount {
    std::string name;
    std::string password;
};

// How a device takes part in two-way audio.
struct TalkConfig {
    bool enabled = true;
    int channel = 0;             // the talk channel clients open; 0: the device's place in the list, from 1
    std::string codec = "PCMU";  // PCMU, PCMA, G726-16 or G7221
    std::string source;          // what the device plays; empty: a built-in tone
    bool capture = true;         // keep what clients say, one file per talk in the device folder
};

struct DeviceConfig {
    std::string devIndex;  // 36 characters, as clients put it into "devIndex"
    std::string name;
    std::string address = "127.0.0.1";  // with rtspPort, how the XML download form names a device
    int rtspPort = 554;
    std::string folder;  // inside the media folder; the devIndex when not given
    TalkConfig talk;
};

constexpr int kMaxBlockSize = 1024 * 1024;

struct GatewayConfig {
    // Parameters of the plug-in's server URL.
    int httpPort = 8080;
    // The two-way audio channel; 0 until the configuration is read, which makes
    // it httpPort + 1 when not given (clients look for it there).
    int audioTalkPort = 0;
    int workThreads = 8;
    int sendTimeoutMs = 5000;
    int recvTimeoutMs = 30000;
    // At most this many downloads at once; past it the gateway refuses with
    // reachDownloadLimit (and counts it) before the plug-in's own ceiling of 400.
    int maxDownloads = 400;
    // On SIGTERM, running downloads get this long to finish before the server stops.
    int shutdownGraceSeconds = 30;
    // Talks one user may have open at once, so that no user holds every
    // channel (the plug-in's own ceiling is 100 talks in all).
    int maxTalksPerUser = 4;
    // What every client may hold, on both of the plug-in's ports: a request head
    // must be whole this long after connecting (the body then has recvTimeout);
    // each port holds at most maxConnections connections, maxConnectionsPerAddress
    // of one client address; reserveFds descriptors stay free of connections, for
    // recordings being sent, talk captures, logs and the admin endpoint. Fewer
    // connections are held when the process's descriptor limit is lower (see
    // DescriptorBudget.h).
    int headTimeoutMs = 10000;
    int maxConnections = 2048;
    int maxConnectionsPerAddress = 512;
    int reserveFds = 256;
    // A download that delivers less than minDeliveryRate bytes per second,
    // averaged over minDeliveryRateSeconds, ends ("too_slow"); 0: no minimum.
    int minDeliveryRate = 8192;
    int minDeliveryRateSeconds = 30;
    // "loop": a download's file is handed to the plug-in, whose event loops read it into a buffer of their
    // own and send it whenever the socket has room, so a download holds neither a thread nor a block;
    // "loop-sendfile": the same with sendfile(2) (a third of the gateway's CPU per byte, but a client on the
    // same machine pays twice as much to receive it, see bench/RESULTS.md); "blocking": a thread per
    // download sends it in blocks through Send, as gateways that do not ask for the loop see it.
    bool loopDelivery = true;
    bool loopSendfile = false;
    // The plug-in's I/O threads on the HTTP port, which send the handed-over files: one per core.
    int ioThreads() const;

    bool adminEnabled = false;  // the admin endpoint (/metrics, /healthz, /recordings)
    ListenAddress admin;
    // Clients of the admin endpoint must send "Authorization: Bearer <token>" when one is
    // given (inline or as a file read at start); required for a listen address other than loopback.
    std::string adminToken;
    std::string adminTokenFile;

    // The operator console (gateway/console): a web page on a listener of its own. Off a loopback
    // address it is served over TLS only, with this certificate chain and key (PEM files).
    bool consoleEnabled = false;
    ListenAddress console;
    std::string consoleCertificate;
    std::string consoleKey;
    int consoleSessionMinutes = 30;  // a signed-in browser idle this long signs in again

    std::string realm = "media-gateway";
    std::vector<UserAccount> users;
    int nonceLifetimeSeconds = 300;
    bool supportSepAuthMethod = false;
    bool supportIdentifyToken = false;

    std::string mediaFolder;  // empty: ../media beside the executable's folder
    // Demo data only where asked: a sample recording per device goes into an
    // empty media folder (created if missing) when this is set; otherwise a
    // missing media folder is an error, so a mistyped or unmounted path is seen.
    bool writeSample = false;
    bool strictIndex = false;  // a bad recordings index entry stops the start
    // Each open stream holds one block resident until the client has taken it, so
    // the block size is most of the memory a download costs: 32 KiB keeps a
    // download near 75 KiB in all (nginx's own default output buffers are
    // 2 x 32 KiB) while one download still fills a loopback link. At most
    // kMaxBlockSize, so that 400 downloads cannot hold more than 400 MiB.
    int blockSize = 32 * 1024;
    std::vector<DeviceConfig> devices;

    int logLevel = 3;       // kLogInfo
    std::string logFile;    // empty: stderr
    std::string accessLog;  // empty: no access log
    bool accessLogJson = false;
    std::string statusFile;  // empty: none
    std::string pluginPath;  // empty: ../lib/libHttpProtocolWrapper.so beside the executable's folder
};

GatewayConfig defaultGatewayConfig();

// The plug-in's opt-in parameters, every one on: the gateway relies on each
// (the Request-Target head, a talk's own refusals, text checked before it
// reaches the filter, talks reached only by their id, a bounded talk backlog,
// downloads ended at the send time-out, and aborted at once when they must end).
extern const char* const kPluginOptIns;

// "127.0.0.1:8080", or "[::1]:9464" for an IPv6 address.
std::string listenAddressText(const std::string& host, int port);

// "http://127.0.0.1:<httpPort>?work_thread=..&sendTimeout=..&recvTimeout=..&audioTalkPort=..", then
// kPluginOptIns and the connection bounds ("&headTimeout=..&maxConnections=..&maxConnectionsPerAddress=..
// &reserveFds=..").
std::string buildServerUrl(const GatewayConfig& config);

// Paths left empty become their places beside the executable's folder
// (executableDir/../media and executableDir/../lib/libHttpProtocolWrapper.so),
// which in a build tree are build/media and build/lib.
void fillDefaultPaths(GatewayConfig& config, const std::string& executableDir);

#endif  // GATEWAY_CONFIG_H
