#include "ops/AdminServer.h"

#include "base/GatewayMetrics.h"
#include "base/Logger.h"
#include "media/MediaCatalog.h"
#include "ops/MetricsText.h"
#include "ops/ProcessStats.h"
#include "media/RecordingsListing.h"
#include "ops/StatusBoard.h"

namespace {

// Scrapes, health checks and a look at the recordings: a few clients at most, and none of them may
// take threads from the delivery; idle and slow ones are closed after the read time-out.
HttpService::Limits adminLimits()
{
    HttpService::Limits limits;
    limits.threads = 2;
    limits.maxConnections = 128;
    return limits;
}

}  // namespace

AdminServer::AdminServer(const GatewayMetrics& metrics, StatusBoard& status, const MediaCatalog& catalog, Logger& log)
    : m_metrics(metrics),
      m_status(status),
      m_catalog(catalog),
      m_log(log),
      m_service(
          adminLimits(),
          [this](const HttpService::Request& request, HttpService::Response& response) { handle(request, response); },
          log)
{
}

AdminServer::~AdminServer()
{
    stop();
}

void AdminServer::handle(const HttpService::Request& request, HttpService::Response& response)
{
    const std::string path = request.target.substr(0, request.target.find('?'));
    if (path == "/metrics") {
        const bool ready = m_status.phase() == GatewayPhase::kReady;
        response.body = renderMetrics(m_metrics, ready, readProcessStats(), currentBuildInfo());
        response.contentType = kMetricsContentType;
    } else if (path == "/healthz") {
        const GatewayPhase phase = m_status.phase();
        response.status = phase == GatewayPhase::kReady ? 200 : 503;
        response.body = std::string(phaseName(phase)) + "\n";
    } else if (path == "/recordings") {
        response.body = recordingsListing(*m_catalog.current());
        response.contentType = "application/json";
    } else {
        response.status = 404;
        response.body = "not found\n";
    }
}

bool AdminServer::start(const ListenAddress& address, const std::string& token, std::string& error)
{
    const std::string where = (address.host.find(':') != std::string::npos ? "[" + address.host + "]" : address.host) +
                              ":" + std::to_string(address.port);
    std::string reason;
    if (!m_service.start(address, token, reason)) {
        error = "admin endpoint cannot listen on " + where + ": " + reason;
        return false;
    }
    m_log.logf(kLogInfo, "admin endpoint on http://%s (/metrics, /healthz, /recordings)%s", where.c_str(),
               token.empty() ? "" : ", bearer token required");
    return true;
}

void AdminServer::stop()
{
    m_service.stop();
}
