// What the gateway has done since it started, counted where it happens and read
// by the admin endpoint's /metrics and by the status file. Every count is an
// atomic of its own: the delivery threads add to them per block without a lock.
#ifndef GATEWAY_GATEWAY_METRICS_H
#define GATEWAY_GATEWAY_METRICS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

// How a download ended, as /metrics and the access log name it.
enum class DownloadOutcome {
    kComplete,     // the whole recording reached the plug-in
    kClientGone,   // the plug-in refused a block: the client went away
    kStopped,      // the plug-in stopped the delivery (client gone, or the server stopping)
    kReadError,    // the recording could not be read to its end
    kNotStarted,   // closed before its delivery started
    kSendTimeout,  // the client took nothing for the send time-out
    kTooSlow,      // the client took less than the minimum delivery rate
};
constexpr size_t kDownloadOutcomeCount = 7;
const char* downloadOutcomeName(DownloadOutcome outcome);

// Why the gateway refused a request.
enum class RefusalReason {
    kUnauthorized,  // credentials missing, wrong or replayed (401)
    kBadRequest,    // a playback URI or parameter that cannot be read (400)
    kNotFound,      // no such device, recording or talk channel (404)
    kLimit,         // the gateway's download limit was reached
    kStopping,      // the gateway is shutting down and takes no new work
};
constexpr size_t kRefusalReasonCount = 5;
const char* refusalReasonName(RefusalReason reason);

// Upper bounds, in seconds, of the download-duration histogram: from a short
// clip on loopback to an hour-long recording over a slow link.
constexpr std::array<double, 10> kDownloadSecondsBuckets = {0.1, 0.5, 1, 2.5, 5, 10, 30, 60, 300, 1800};

class GatewayMetrics {
public:
    void downloadStarted();
    void downloadFinished(DownloadOutcome outcome, double seconds);
    void addSentBytes(uint64_t bytes) { m_sentBytes.fetch_add(bytes, std::memory_order_relaxed); }
    void talkStarted();
    void talkFinished(double seconds);
    void addTalkBytesToClient(uint64_t bytes) { m_talkBytesToClient.fetch_add(bytes, std::memory_order_relaxed); }
    void addTalkBytesFromClient(uint64_t bytes) { m_talkBytesFromClient.fetch_add(bytes, std::memory_order_relaxed); }
    void requestRefused(RefusalReason reason);
    void challengeIssued() { m_challenges.fetch_add(1, std::memory_order_relaxed); }
    void reloaded(bool succeeded);
    void accessLogLineDropped() { m_accessLogDropped.fetch_add(1, std::memory_order_relaxed); }
    void accessLogRefusalSkipped() { m_accessLogRefusalsSkipped.fetch_add(1, std::memory_order_relaxed); }

    uint64_t downloadsStarted() const { return m_downloadsStarted.load(); }
    uint64_t downloadsFinished(DownloadOutcome outcome) const;
    uint64_t downloadsFinished() const;  // every outcome
    int64_t openDownloads() const { return m_openDownloads.load(); }
    uint64_t sentBytes() const { return m_sentBytes.load(); }
    uint64_t talksStarted() const { return m_talksStarted.load(); }
    int64_t openTalks() const { return m_openTalks.load(); }
    double talkSeconds() const { return m_talkMicroseconds.load() / 1e6; }
    uint64_t talkBytesToClient() const { return m_talkBytesToClient.load(); }
    uint64_t talkBytesFromClient() const { return m_talkBytesFromClient.load(); }
    uint64_t requestsRefused(RefusalReason reason) const;
    uint64_t requestsRefused() const;  // every reason
    uint64_t challenges() const { return m_challenges.load(); }
    uint64_t reloads(bool succeeded) const { return m_reloads[succeeded ? 1 : 0].load(); }
    uint64_t accessLogDropped() const { return m_accessLogDropped.load(); }
    uint64_t accessLogRefusalsSkipped() const { return m_accessLogRefusalsSkipped.load(); }

    // The duration histogram: count per bucket (not cumulative; the last one is
    // above every bound), and the sum of every duration.
    uint64_t durationBucket(size_t index) const { return m_durationBuckets[index].load(); }
    double durationSumSeconds() const { return m_durationMicroseconds.load() / 1e6; }

private:
    std::atomic<uint64_t> m_downloadsStarted{0};
    std::array<std::atomic<uint64_t>, kDownloadOutcomeCount> m_downloadsFinished{};
    std::atomic<int64_t> m_openDownloads{0};
    std::atomic<uint64_t> m_sentBytes{0};
    std::atomic<uint64_t> m_talksStarted{0};
    std::atomic<int64_t> m_openTalks{0};
    std::atomic<uint64_t> m_talkMicroseconds{0};
    std::atomic<uint64_t> m_talkBytesToClient{0};
    std::atomic<uint64_t> m_talkBytesFromClient{0};
    std::array<std::atomic<uint64_t>, kRefusalReasonCount> m_refused{};
    std::atomic<uint64_t> m_challenges{0};
    std::array<std::atomic<uint64_t>, 2> m_reloads{};  // failed, succeeded
    std::atomic<uint64_t> m_accessLogDropped{0};
    std::atomic<uint64_t> m_accessLogRefusalsSkipped{0};
    std::array<std::atomic<uint64_t>, kDownloadSecondsBuckets.size() + 1> m_durationBuckets{};
    std::atomic<uint64_t> m_durationMicroseconds{0};
};

#endif  // GATEWAY_GATEWAY_METRICS_H
