// What the gateway is doing, for people and tests that watch it from outside:
// its phase (starting, ready, stopping), the last client, and the counts of
// GatewayMetrics, published as a small JSON file when a path is set. The file is
// written whole at once (to a temporary file, then renamed, so a reader never
// sees half a document): at once when the phase changes, and otherwise by
// publishIfChanged, which the gateway's main loop calls a few times a second,
// so a burst of downloads costs no disk writes on the delivery threads:
//   {"ready":true,"phase":"ready","port":8080,"pid":1234,"openStreams":0,"opened":3,"closed":3,
//    "openTalks":0,"talks":1,"refused":1,"lastClientIP":"127.0.0.1",
//    "listeners":{"http":"127.0.0.1:8080","audio":"127.0.0.1:8081","admin":"127.0.0.1:9464"}}
#ifndef GATEWAY_STATUS_BOARD_H
#define GATEWAY_STATUS_BOARD_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

class GatewayMetrics;
class Logger;

enum class GatewayPhase { kStarting, kReady, kStopping };

// "starting", "ready" or "stopping", as the status file and the health check show it.
const char* phaseName(GatewayPhase phase);

// Every address the gateway listens on, as "host:port", so that an operator
// finds each port where the gateway says it is ready.
struct GatewayListeners {
    std::string http;
    std::string audio;  // the two-way audio channel
    std::string admin;  // empty: the admin endpoint is off

    bool operator==(const GatewayListeners& other) const;
};

struct GatewayStatus {
    GatewayPhase phase = GatewayPhase::kStarting;
    int port = 0;
    int64_t openStreams = 0;
    int64_t openTalks = 0;
    uint64_t talks = 0;
    uint64_t opened = 0;
    uint64_t closed = 0;
    uint64_t refused = 0;
    std::string lastClientIP;
    GatewayListeners listeners;

    bool operator==(const GatewayStatus& other) const;
};

class StatusBoard {
public:
    StatusBoard(std::string path, const GatewayMetrics& metrics, Logger& log);

    // Set once, before the first phase.
    void setListeners(GatewayListeners listeners);
    // Writes the file at once; false when it cannot be written.
    bool setPhase(GatewayPhase phase, int port);
    GatewayPhase phase() const { return m_phase.load(); }
    void requestAccepted(const std::string& clientIP);
    GatewayStatus snapshot();
    // Writes the file when anything changed since it was last written.
    void publishIfChanged();

private:
    GatewayStatus snapshotLocked() const;
    bool publishLocked(const GatewayStatus& status);

    const GatewayMetrics& m_metrics;
    std::atomic<GatewayPhase> m_phase{GatewayPhase::kStarting};
    std::mutex m_lock;  // guards the fields below and the file, so writes never interleave
    int m_port = 0;
    std::string m_lastClientIP;
    GatewayListeners m_listeners;
    GatewayStatus m_published;
    bool m_everPublished = false;
    const std::string m_path;
    Logger& m_log;
};

#endif  // GATEWAY_STATUS_BOARD_H
