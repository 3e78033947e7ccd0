// What the gateway is doing, for people and tests that watch it from outside:
// kept in memory and, when a path is set, rewritten as a small JSON file on
// every change (written to a temporary file and renamed, so a reader never
// sees half a document):
//   {"ready":true,"port":8080,"pid":1234,"openStreams":0,"opened":3,"closed":3,
//    "openTalks":0,"talks":1,"refused":1,"lastClientIP":"127.0.0.1"}
#ifndef GATEWAY_STATUS_BOARD_H
#define GATEWAY_STATUS_BOARD_H

#include <cstdint>
#include <mutex>
#include <string>

class Logger;

struct GatewayStatus {
    bool ready = false;
    int port = 0;
    int openStreams = 0;
    int openTalks = 0;
    uint64_t talks = 0;
    uint64_t opened = 0;
    uint64_t closed = 0;
    uint64_t refused = 0;
    std::string lastClientIP;
};

class StatusBoard {
public:
    StatusBoard(std::string path, Logger& log);

    // False when the status file cannot be written.
    bool setReady(bool ready, int port);
    void streamOpened();
    void streamClosed();
    void talkOpened();
    void talkClosed();
    void requestRefused();
    void requestAccepted(const std::string& clientIP);
    GatewayStatus snapshot();

private:
    bool publishLocked();

    std::mutex m_lock;  // guards m_status and the file, so writes never interleave
    GatewayStatus m_status;
    const std::string m_path;
    Logger& m_log;
};

#endif  // GATEWAY_STATUS_BOARD_H
