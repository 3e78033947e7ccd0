// One line per finished download and per talk, for operators who bill, audit or
// trace clients: time, client, user, device, recording or channel, range, bytes
// each way, seconds, outcome. Two formats:
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
// The delivery threads only queue an entry; a writer thread of its own formats
// and writes, so a slow disk never holds up a download. When the queue is full
// the entry is dropped and counted (media_gateway_access_log_dropped_total).
#ifndef GATEWAY_ACCESS_LOG_H
#define GATEWAY_ACCESS_LOG_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

class GatewayMetrics;
class Logger;

struct AccessEntry {
    std::chrono::system_clock::time_point time;  // when it ended
    std::string kind;                            // "download" or "talk"
    std::string client;                          // empty: unknown
    std::string user;
    std::string device;
    std::string recording;  // downloads
    int channel = 0;        // talks
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

    AccessLog(GatewayMetrics& metrics, Logger& log);
    ~AccessLog();
    AccessLog(const AccessLog&) = delete;
    AccessLog& operator=(const AccessLog&) = delete;

    // Appends to the file from now on and starts the writer; false with the
    // reason when the file cannot be opened. Without a call, entries are ignored.
    bool open(const std::string& path, AccessLogFormat format, std::string& error);
    // Queues one entry; never waits for the disk.
    void record(AccessEntry entry);
    // Opens the file again by its name before the next line (after log rotation).
    void reopen();
    // Writes what is queued and stops the writer.
    void close();

private:
    void writeLoop();

    GatewayMetrics& m_metrics;
    Logger& m_log;
    std::string m_path;
    AccessLogFormat m_format = AccessLogFormat::kCommon;
    FILE* m_file = nullptr;  // used by the writer thread only, once started

    std::mutex m_lock;  // guards the queue and the flags below
    std::condition_variable m_wake;
    std::deque<AccessEntry> m_queue;
    bool m_reopen = false;
    bool m_stop = false;
    std::thread m_writer;
};

#endif  // GATEWAY_ACCESS_LOG_H
