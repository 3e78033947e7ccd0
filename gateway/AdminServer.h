// The gateway's admin endpoint, on a port of its own (loopback by default):
//   GET /metrics     the counters in the Prometheus text format (MetricsText.h)
//   GET /healthz     200 "ready" while the plug-in listens and new work is taken;
//                    503 "starting" or "stopping" otherwise, so a balancer or an
//                    orchestrator sends clients elsewhere
//   GET /recordings  the devices and their recordings as JSON (RecordingsListing.h)
// It answers without credentials: keep it on loopback, or behind a proxy that
// decides who may see the device list.
#ifndef GATEWAY_ADMIN_SERVER_H
#define GATEWAY_ADMIN_SERVER_H

#include <memory>
#include <string>
#include <thread>

#include "ListenAddress.h"

namespace httplib {
class Server;
}

class GatewayMetrics;
class Logger;
class MediaCatalog;
class StatusBoard;

class AdminServer {
public:
    AdminServer(const GatewayMetrics& metrics, StatusBoard& status, const MediaCatalog& catalog, Logger& log);
    ~AdminServer();
    AdminServer(const AdminServer&) = delete;
    AdminServer& operator=(const AdminServer&) = delete;

    // Binds and starts serving; false with a message naming the address and the
    // reason (the port is taken, the address is not this host's, ...).
    bool start(const ListenAddress& address, std::string& error);
    // Stops accepting, ends the connections and joins the serving threads.
    void stop();

private:
    void route();

    const GatewayMetrics& m_metrics;
    StatusBoard& m_status;
    const MediaCatalog& m_catalog;
    Logger& m_log;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
};

#endif  // GATEWAY_ADMIN_SERVER_H
