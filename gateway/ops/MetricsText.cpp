#include "ops/MetricsText.h"

#include <cstdio>
#include <cstdlib>

#ifndef GATEWAY_VERSION
#define GATEWAY_VERSION "unknown"
#endif
#ifndef GATEWAY_REVISION
#define GATEWAY_REVISION "unknown"
#endif
#ifndef GATEWAY_COMPILER
#define GATEWAY_COMPILER "unknown"
#endif

namespace {

// Label values are the gateway's own words and the build's; only these three
// characters need escaping in the format.
std::string escapeLabel(const std::string& value)
{
    std::string escaped;
    for (char c : value) {
        if (c == '\\' || c == '"') {
            escaped += '\\';
            escaped += c;
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

// The shortest text that reads back as the same double: "0.1", not "0.10000000000000001".
std::string number(double value)
{
    char text[32];
    for (int precision = 6; precision <= 17; ++precision) {
        snprintf(text, sizeof text, "%.*g", precision, value);
        if (strtod(text, nullptr) == value) {
            break;
        }
    }
    return text;
}

class Exposition {
public:
    void family(const char* name, const char* type, const char* help)
    {
        m_text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    }
    void sample(const std::string& name, const std::string& labels, uint64_t value)
    {
        m_text += name + labels + " " + std::to_string(value) + "\n";
    }
    void sample(const std::string& name, const std::string& labels, double value)
    {
        m_text += name + labels + " " + number(value) + "\n";
    }
    std::string text() const { return m_text; }

private:
    std::string m_text;
};

std::string label(const char* name, const std::string& value)
{
    return std::string("{") + name + "=\"" + escapeLabel(value) + "\"}";
}

void renderDownloads(Exposition& out, const GatewayMetrics& metrics)
{
    out.family("media_gateway_downloads_started_total", "counter", "Downloads the gateway opened.");
    out.sample("media_gateway_downloads_started_total", "", metrics.downloadsStarted());
    out.family("media_gateway_downloads_finished_total", "counter", "Downloads that ended, by outcome.");
    for (size_t i = 0; i < kDownloadOutcomeCount; ++i) {
        const auto outcome = static_cast<DownloadOutcome>(i);
        out.sample("media_gateway_downloads_finished_total", label("outcome", downloadOutcomeName(outcome)),
                   metrics.downloadsFinished(outcome));
    }
    out.family("media_gateway_open_downloads", "gauge", "Downloads being delivered now.");
    out.sample("media_gateway_open_downloads", "", static_cast<double>(metrics.openDownloads()));
    out.family("media_gateway_sent_bytes_total", "counter",
               "Bytes of downloads (stream head and recording) handed to the plug-in for clients.");
    out.sample("media_gateway_sent_bytes_total", "", metrics.sentBytes());

    const char* histogram = "media_gateway_download_duration_seconds";
    out.family(histogram, "histogram", "Time from opening a download to its end, whatever the outcome.");
    uint64_t cumulative = 0;
    for (size_t i = 0; i < kDownloadSecondsBuckets.size(); ++i) {
        cumulative += metrics.durationBucket(i);
        out.sample(std::string(histogram) + "_bucket", label("le", number(kDownloadSecondsBuckets[i])), cumulative);
    }
    cumulative += metrics.durationBucket(kDownloadSecondsBuckets.size());
    out.sample(std::string(histogram) + "_bucket", label("le", "+Inf"), cumulative);
    out.sample(std::string(histogram) + "_sum", "", metrics.durationSumSeconds());
    out.sample(std::string(histogram) + "_count", "", cumulative);
}

void renderTalksAndRequests(Exposition& out, const GatewayMetrics& metrics)
{
    out.family("media_gateway_talks_started_total", "counter", "Two-way audio talks opened.");
    out.sample("media_gateway_talks_started_total", "", metrics.talksStarted());
    out.family("media_gateway_open_talks", "gauge", "Two-way audio talks open now.");
    out.sample("media_gateway_open_talks", "", static_cast<double>(metrics.openTalks()));
    out.family("media_gateway_talk_seconds_total", "counter", "Length of the talks that ended.");
    out.sample("media_gateway_talk_seconds_total", "", metrics.talkSeconds());
    out.family("media_gateway_talk_bytes_total", "counter", "Audio bytes of talks, by direction.");
    out.sample("media_gateway_talk_bytes_total", label("direction", "to_client"), metrics.talkBytesToClient());
    out.sample("media_gateway_talk_bytes_total", label("direction", "from_client"), metrics.talkBytesFromClient());

    out.family("media_gateway_requests_refused_total", "counter", "Requests the gateway refused, by reason.");
    for (size_t i = 0; i < kRefusalReasonCount; ++i) {
        const auto reason = static_cast<RefusalReason>(i);
        out.sample("media_gateway_requests_refused_total", label("reason", refusalReasonName(reason)),
                   metrics.requestsRefused(reason));
    }
    out.family("media_gateway_digest_challenges_total", "counter",
               "Digest challenges sent to clients that came without credentials.");
    out.sample("media_gateway_digest_challenges_total", "", metrics.challenges());
    out.family("media_gateway_reloads_total", "counter", "Reloads asked for with SIGHUP, by result.");
    out.sample("media_gateway_reloads_total", label("result", "success"), metrics.reloads(true));
    out.sample("media_gateway_reloads_total", label("result", "failure"), metrics.reloads(false));
    out.family("media_gateway_access_log_dropped_total", "counter",
               "Access log lines lost because the log file could not keep up.");
    out.sample("media_gateway_access_log_dropped_total", "", metrics.accessLogDropped());
    out.family("media_gateway_access_log_refusals_skipped_total", "counter",
               "Refused requests not written to the access log because more came in a second than it takes.");
    out.sample("media_gateway_access_log_refusals_skipped_total", "", metrics.accessLogRefusalsSkipped());
}

void renderProcess(Exposition& out, const ProcessStats& process)
{
    out.family("process_resident_memory_bytes", "gauge", "Resident memory size.");
    out.sample("process_resident_memory_bytes", "", static_cast<double>(process.residentBytes));
    out.family("process_virtual_memory_bytes", "gauge", "Virtual memory size.");
    out.sample("process_virtual_memory_bytes", "", static_cast<double>(process.virtualBytes));
    out.family("process_threads", "gauge", "Threads of the process.");
    out.sample("process_threads", "", static_cast<double>(process.threads));
    out.family("process_open_fds", "gauge", "Open file descriptors.");
    out.sample("process_open_fds", "", static_cast<double>(process.openDescriptors));
    out.family("process_max_fds", "gauge", "Limit of open file descriptors.");
    out.sample("process_max_fds", "", static_cast<double>(process.maxDescriptors));
    out.family("process_cpu_seconds_total", "counter", "User and system CPU time.");
    out.sample("process_cpu_seconds_total", "", process.cpuSeconds);
    out.family("process_start_time_seconds", "gauge", "Start time of the process since the epoch.");
    out.sample("process_start_time_seconds", "", process.startTimeSeconds);
}

}  // namespace

BuildInfo currentBuildInfo()
{
    return BuildInfo{GATEWAY_VERSION, GATEWAY_REVISION, GATEWAY_COMPILER};
}

std::string renderMetrics(const GatewayMetrics& metrics, bool ready, const ProcessStats& process,
                          const BuildInfo& build)
{
    Exposition out;
    out.family("media_gateway_build_info", "gauge", "The gateway's build; the value is always 1.");
    out.sample("media_gateway_build_info",
               "{version=\"" + escapeLabel(build.version) + "\",revision=\"" + escapeLabel(build.revision) +
                   "\",compiler=\"" + escapeLabel(build.compiler) + "\"}",
               1.0);
    out.family("media_gateway_ready", "gauge", "1 while the plug-in listens and the gateway takes new work.");
    out.sample("media_gateway_ready", "", ready ? 1.0 : 0.0);
    renderDownloads(out, metrics);
    renderTalksAndRequests(out, metrics);
    renderProcess(out, process);
    return out.text();
}
