// The gateway's admin endpoint, on a port of its own (loopback by default):
//   GET /metrics     the counters in the Prometheus text format (MetricsText.h)
//   GET /healthz     200 "ready" while the plug-in listens and new work is taken;
//                    503 "starting" or "stopping" otherwise, so a balancer or an
//                    orchestrator sends clients elsewhere
//   GET /recordings  the devices and their recordings as JSON (RecordingsListing.h)
// It is served by the gateway's own HttpService, not by the plug-in's server:
// it must keep answering, with its own threads and bounds, while the plug-in's
// server is starting, saturated or stopping. Without a token it answers anyone
// who reaches it, which the configuration allows on loopback only; with one,
// only requests that carry it.
#ifndef GATEWAY_ADMIN_SERVER_H
#define GATEWAY_ADMIN_SERVER_H

#include <memory>
#include <string>

#include "ops/HttpService.h"
#include "base/ListenAddress.h"

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
    // reason (the port is taken, the address is not this host's, ...). token: "" for none.
    bool start(const ListenAddress& address, const std::string& token, std::string& error);
    // Stops accepting, ends the connections and joins the serving threads.
    void stop();
    int port() const { return m_service.port(); }

private:
    void handle(const HttpService::Request& request, HttpService::Response& response);

    const GatewayMetrics& m_metrics;
    StatusBoard& m_status;
    const MediaCatalog& m_catalog;
    Logger& m_log;
    HttpService m_service;
};

#endif  // GATEWAY_ADMIN_SERVER_H
