#include "base/GatewayMetrics.h"

namespace {

uint64_t microseconds(double seconds)
{
    return seconds > 0 ? static_cast<uint64_t>(seconds * 1e6 + 0.5) : 0;
}

// The total over every label of a counter kept per label.
template <size_t N>
uint64_t sumOf(const std::array<std::atomic<uint64_t>, N>& counts)
{
    uint64_t total = 0;
    for (const auto& count : counts) {
        total += count.load();
    }
    return total;
}

}  // namespace

const char* downloadOutcomeName(DownloadOutcome outcome)
{
    switch (outcome) {
    case DownloadOutcome::kComplete: return "complete";
    case DownloadOutcome::kClientGone: return "client_gone";
    case DownloadOutcome::kStopped: return "stopped";
    case DownloadOutcome::kReadError: return "read_error";
    case DownloadOutcome::kNotStarted: return "not_started";
    case DownloadOutcome::kSendTimeout: return "send_timeout";
    case DownloadOutcome::kTooSlow: return "too_slow";
    }
    return "unknown";
}

const char* refusalReasonName(RefusalReason reason)
{
    switch (reason) {
    case RefusalReason::kUnauthorized: return "unauthorized";
    case RefusalReason::kBadRequest: return "bad_request";
    case RefusalReason::kNotFound: return "not_found";
    case RefusalReason::kLimit: return "limit";
    case RefusalReason::kStopping: return "stopping";
    }
    return "unknown";
}

void GatewayMetrics::downloadStarted()
{
    m_downloadsStarted.fetch_add(1);
    m_openDownloads.fetch_add(1);
}

void GatewayMetrics::downloadFinished(DownloadOutcome outcome, double seconds)
{
    size_t bucket = 0;
    while (bucket < kDownloadSecondsBuckets.size() && seconds > kDownloadSecondsBuckets[bucket]) {
        ++bucket;
    }
    m_durationBuckets[bucket].fetch_add(1);
    m_durationMicroseconds.fetch_add(microseconds(seconds));
    m_downloadsFinished[static_cast<size_t>(outcome)].fetch_add(1);
    m_openDownloads.fetch_sub(1);
}

void GatewayMetrics::talkStarted()
{
    m_talksStarted.fetch_add(1);
    m_openTalks.fetch_add(1);
}

void GatewayMetrics::talkFinished(double seconds)
{
    m_talkMicroseconds.fetch_add(microseconds(seconds));
    m_openTalks.fetch_sub(1);
}

void GatewayMetrics::requestRefused(RefusalReason reason)
{
    m_refused[static_cast<size_t>(reason)].fetch_add(1);
}

void GatewayMetrics::reloaded(bool succeeded)
{
    m_reloads[succeeded ? 1 : 0].fetch_add(1);
}

uint64_t GatewayMetrics::downloadsFinished(DownloadOutcome outcome) const
{
    return m_downloadsFinished[static_cast<size_t>(outcome)].load();
}

uint64_t GatewayMetrics::downloadsFinished() const
{
    return sumOf(m_downloadsFinished);
}

uint64_t GatewayMetrics::requestsRefused(RefusalReason reason) const
{
    return m_refused[static_cast<size_t>(reason)].load();
}

uint64_t GatewayMetrics::requestsRefused() const
{
    return sumOf(m_refused);
}
