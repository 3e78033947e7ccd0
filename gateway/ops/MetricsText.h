// The gateway's metrics in the Prometheus text exposition format (version
// 0.0.4), as GET /metrics on the admin endpoint serves them. Names follow the
// Prometheus conventions: base units, "_total" on counters, "_bytes" and
// "_seconds" for sizes and durations; the process figures use the names of the
// usual process collector, so existing dashboards find them.
#ifndef GATEWAY_METRICS_TEXT_H
#define GATEWAY_METRICS_TEXT_H

#include <string>

#include "base/GatewayMetrics.h"
#include "ops/ProcessStats.h"

constexpr const char* kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";

struct BuildInfo {
    std::string version;
    std::string revision;
    std::string compiler;
};

// The build this program is, as the build system stamped it.
BuildInfo currentBuildInfo();

std::string renderMetrics(const GatewayMetrics& metrics, bool ready, const ProcessStats& process,
                          const BuildInfo& build);

#endif  // GATEWAY_METRICS_TEXT_H
