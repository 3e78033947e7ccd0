// The admin endpoint is served with cpp-httplib (Debian's libcpp-httplib), not
// with the platform's libVQNetUtils that the plug-in's server runs on: the
// gateway is a host that links nothing of the plug-in's, and the admin port has
// to keep answering, with its own threads and limits, while the plug-in's
// server is starting, saturated or stopping. httplib also gives IPv6, HEAD and
// keep-alive for scrapers without code of ours.
#include "AdminServer.h"

#include <httplib.h>

#include <chrono>

#include "GatewayMetrics.h"
#include "Logger.h"
#include "MediaCatalog.h"
#include "MetricsText.h"
#include "ProcessStats.h"
#include "RecordingsListing.h"
#include "StatusBoard.h"

namespace {

// Scrapes, health checks and a look at the recordings: a few connections at
// most, and none of them may take threads from the delivery.
constexpr size_t kAdminThreads = 2;

}  // namespace

AdminServer::AdminServer(const GatewayMetrics& metrics, StatusBoard& status, const MediaCatalog& catalog, Logger& log)
    : m_metrics(metrics), m_status(status), m_catalog(catalog), m_log(log)
{
}

AdminServer::~AdminServer()
{
    stop();
}

void AdminServer::route()
{
    m_server->new_task_queue = [] { return new httplib::ThreadPool(kAdminThreads); };
    m_server->Get("/metrics", [this](const httplib::Request&, httplib::Response& response) {
        const bool ready = m_status.phase() == GatewayPhase::kReady;
        response.set_content(renderMetrics(m_metrics, ready, readProcessStats(), currentBuildInfo()),
                             kMetricsContentType);
    });
    m_server->Get("/healthz", [this](const httplib::Request&, httplib::Response& response) {
        const GatewayPhase phase = m_status.phase();
        response.status = phase == GatewayPhase::kReady ? 200 : 503;
        response.set_content(std::string(phaseName(phase)) + "\n", "text/plain; charset=utf-8");
    });
    m_server->Get("/recordings", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(recordingsListing(*m_catalog.current()), "application/json");
    });
}

bool AdminServer::start(const ListenAddress& address, std::string& error)
{
    const std::string where = (address.host.find(':') != std::string::npos ? "[" + address.host + "]" : address.host) +
                              ":" + std::to_string(address.port);
    m_server.reset(new httplib::Server());
    route();
    if (!m_server->bind_to_port(address.host, address.port)) {
        const std::string reason = whyCannotListen(address);
        error = "admin endpoint cannot listen on " + where + ": " + (reason.empty() ? "bind failed" : reason);
        m_server.reset();
        return false;
    }
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
    // stop() only reaches a server that has begun its loop; wait for that here.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!m_server->is_running() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m_log.logf(kLogInfo, "admin endpoint on http://%s (/metrics, /healthz, /recordings)", where.c_str());
    return true;
}

void AdminServer::stop()
{
    if (!m_server) {
        return;
    }
    m_server->stop();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    m_server.reset();
}
