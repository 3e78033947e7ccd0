// One line per finished download, per talk and per request the gateway refused,
// for operators who bill, audit or trace clients: time, client, user, device,
// recording or channel, range, bytes each way, seconds, outcome. Two formats:
//
//   common (default), the Common Log Format's first four fields, then ours:
//     127.0.0.1 - admin [25/Nov/2026:07:38:00 +0100] "download <devIndex> sample-0001.bin" - 3147002 0 1.234 complete
//     127.0.0.1 - admin [25/Nov/2026:07:40:12 +0100] "talk <devIndex> channel-1" - 40000 38400 2.400 closed
//     (client - user [time] "kind device item" range bytes-sent bytes-received seconds outcome; "-" for empty)
//   json, one object per line:
//     {"time":"2026-11-25T06:38:00.123Z","kind":"download","client":"127.0.0.1","user":"admin",
//      "device":"<devIndex>","recording":"sample-0001.bin","range":null,"bytesSent":3147002,
//      "bytesReceived":0,"seconds":1.234,"outcome":"complete"}
//     (a talk names "channel" instead of "recording")
//
// A refused request has the same columns: what the client claimed (user,
// device, recording or channel; none checked), nothing sent, and the outcome
// "refused_" and the reason /metrics counts it by (one line here):
//     203.0.113.9 - mallory [25/Nov/2026:07:41:03 +0100] "download <devIndex> sample-0001.bin" - 0 0 0.000
//         refused_unauthorized
//
// The delivery threads only queue an entry; a writer thread of its own formats
// and writes, so a slow disk never holds up a download. When the queue is full
// the entry is dropped and counted (media_gateway_access_log_dropped_total).
// Refusals cost a client nothing but a request, so a flood of them would fill
// the disk: at most kMaxRefusalsPerSecond are written each second, the rest
// only counted (media_gateway_access_log_refusals_skipped_total), and the
// client's claims in them are cut to kMaxClaimedText bytes, which bounds the
// bytes a second they can add to the file.
#ifndef GATEWAY_ACCESS_LOG_H
#define GATEWAY_ACCESS_LOG_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "base/SteadyClock.h"

class GatewayMetrics;
class Logger;

struct AccessEntry {
    std::chrono::system_clock::time_point time;  // when it ended
    std::string kind;                            // "download" or "talk"
    std::string client;                          // empty: unknown
    std::string user;
    std::string device;
    std::string recording;  // downloads
    int channel = 0;        // talks; 0: none named
    std::string range;      // the byte range a download asked for; empty: the whole recording
    uint64_t bytesSent = 0;
    uint64_t bytesReceived = 0;
    double seconds = 0;
    std::string outcome;
};

enum class AccessLogFormat { kCommon, kJson };

// "common" or "json"; false for anything else.
bool parseAccessLogFormat(const std::string& name, AccessLogFormat& format);

std::string formatAccessEntry(const AccessEntry& entry, AccessLogFormat format);

class AccessLog {
public:
    // Entries waiting for the writer at most; past it they are dropped.
    static const size_t kMaxQueued = 8192;
    // Refusals written in one second at most; past it they are counted, not written.
    static constexpr int kMaxRefusalsPerSecond = 20;
    // A refusal's user, device and recording are the client's text: each is cut to this length.
    static constexpr size_t kMaxClaimedText = 64;

    // now: seconds on a steady clock, for the refusals' rate.
    AccessLog(GatewayMetrics& metrics, Logger& log, std::function<int64_t()> now = steadySeconds);
    ~AccessLog();
    AccessLog(const AccessLog&) = delete;
    AccessLog& operator=(const AccessLog&) = delete;

    // Appends to the file from now on and starts the writer; false with the
    // reason when the file cannot be opened. Without a call, entries are ignored.
    bool open(const std::string& path, AccessLogFormat format, std::string& error);
    // Queues one entry; never waits for the disk.
    void record(AccessEntry entry);
    // Queues the entry of a refused request, within the refusals' rate.
    void recordRefusal(AccessEntry entry);
    // Opens the file again by its name before the next line (after log rotation).
    void reopen();
    // Writes what is queued and stops the writer.
    void close();

private:
    void writeLoop();

    GatewayMetrics& m_metrics;
    Logger& m_log;
    const std::function<int64_t()> m_now;
    std::string m_path;
    AccessLogFormat m_format = AccessLogFormat::kCommon;
    FILE* m_file = nullptr;  // used by the writer thread only, once started

    std::mutex m_lock;  // guards the queue and the flags below
    std::condition_variable m_wake;
    std::deque<AccessEntry> m_queue;
    bool m_reopen = false;
    bool m_stop = false;
    int64_t m_refusalSecond = 0;  // the second the count below is for
    int m_refusalsThisSecond = 0;
    int64_t m_skipNotedAt = -1;  // when skipping was last logged; once a minute at most
    std::thread m_writer;
};

#endif  // GATEWAY_ACCESS_LOG_H
