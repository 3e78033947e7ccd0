// The operator console: a web page on a listener of its own (loopback by
// default; elsewhere over TLS only) from which a gateway user signs in, sees
// the devices with live counters, lists, filters and downloads recordings,
// plays and downloads talk captures, and talks to a device. Served by
// Boost.Beast, the library of the admin endpoint, over HTTP and WebSocket.
//
// The console is a client of the product, never a side door: downloads and
// talks go through the plug-in's ports with Digest, as the signed-in user
// (DownloadRelay.h, TalkBridge.h). It reads the catalog, the talking devices
// and the metrics for its lists and counters, and the device folders for the
// talk captures, which the plug-in's API does not serve.
//
// Every byte from a browser is hostile: requests are read within a deadline
// and bounded in size, connections are capped (the oldest makes room), as are
// sessions, downloads and talks at once, WebSocket messages and what waits to
// be sent on them.
#ifndef GATEWAY_CONSOLE_SERVER_H
#define GATEWAY_CONSOLE_SERVER_H

#include <memory>
#include <string>

class DigestAuthenticator;
class GatewayMetrics;
class Logger;
class MediaCatalog;
class TalkDevices;
struct GatewayConfig;

class ConsoleServer {
public:
    static constexpr size_t kMaxConnections = 64;
    static constexpr size_t kMaxDownloads = 8;
    static constexpr size_t kMaxTalks = 4;

    ConsoleServer(const GatewayConfig& config, const MediaCatalog& catalog, TalkDevices& talks,
                  const GatewayMetrics& metrics, const DigestAuthenticator& users, Logger& log);
    ~ConsoleServer();
    ConsoleServer(const ConsoleServer&) = delete;
    ConsoleServer& operator=(const ConsoleServer&) = delete;

    // Binds console.listen (TLS with the configured certificate and key when given); false with a message.
    bool start(std::string& error);
    // Ends downloads and talks, closes every connection and joins the threads. Idempotent.
    void stop();
    int port() const;
    // "http://127.0.0.1:8090/" (https with TLS), for the ready line.
    std::string url() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

#endif  // GATEWAY_CONSOLE_SERVER_H
