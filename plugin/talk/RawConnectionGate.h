// The audio port's door, when the server URL bounds connections: accepted
// connections wait here until their request head has arrived, costing a
// descriptor and a few bytes each, and only then become raw sessions (with
// their 64 KiB receive buffer). Until its session is gone, every connection
// counts against the port's bounds (CServerOptions) and has one deadline: a
// connection that has not become a talk's link within the head time-out is
// closed, however slowly it keeps sending.
//
// The gate sees whether a head has arrived without reading it: it peeks at
// the bytes waiting on the socket and looks for the blank line that ends a
// head, or for more bytes than the channel takes in one request (2048), which
// it refuses itself. What the head says is the session's parser's to judge.
//
// Threads: serve() runs on the manager's accept thread; release() is called
// by the workers that finish a raw session.
#ifndef HTTPWRAPPER_TALK_RAWCONNECTIONGATE_H
#define HTTPWRAPPER_TALK_RAWCONNECTIONGATE_H

#include <atomic>
#include <functional>
#include <set>
#include <unordered_map>
#include <utility>

#include <netutils/ConnectionBudget.h>
#include <zrt/zrt.h>

#include "talk/HttpParser.h"

namespace HttpWrapper {

class CRawConnectionGate {
public:
    struct Limits {
        int headTimeoutMs = 0;  // 0: no deadline
        int maxConnections = 0;
        int maxPerAddress = 0;
        int reserveFds = 0;
    };
    // admit: the connection's head is here: make it a session (the socket is the callee's to close from
    // now on, and release() follows when its session is gone). expire: the deadline of a connection that
    // became a session passed: destroy that session (asked again every second until it is released).
    CRawConnectionGate(const Limits& limits, std::function<void(int socket)> admit,
                       std::function<void(int socket)> expire);
    ~CRawConnectionGate();  // closes the connections still waiting
    CRawConnectionGate(const CRawConnectionGate&) = delete;
    CRawConnectionGate& operator=(const CRawConnectionGate&) = delete;

    // Accepts and watches connections until running is 0 (checked at least every 100 ms) or the listener
    // fails; false when the gate could not start watching.
    bool serve(int listenSocket, const std::atomic<int>& running);
    // The session of the socket is gone (or was never made): call before the socket is closed.
    void release(int socket);
    // Connections held: waiting ones and sessions not yet released.
    int heldCount();

private:
    struct Held {
        uint64_t id;
        ZRT_UINT64 deadline;  // 0: none
        bool waiting;         // still at the door (the gate owns the socket)
    };

    enum AcceptResult { kAcceptDone, kAcceptMore, kAcceptShort };
    // Accepts a burst of waiting connections: all there were (done), a burst with perhaps more waiting,
    // or short of descriptors with some left waiting.
    AcceptResult acceptSome(int listenSocket);
    void look(int socket);
    // Closes a waiting connection, or forgets a session's; with the lock held.
    void dropLocked(int socket, Held& held);
    void forgetLocked(int socket);
    void expireDeadlines();
    ZRT_UINT32 waitMs();
    void logRefusal();

    const Limits m_limits;
    const std::function<void(int)> m_admit;
    const std::function<void(int)> m_expire;
    void* m_poller = nullptr;
    ZRT_Mutex m_lock{1};  // guards everything below
    netutils::ConnectionBudget m_budget;
    std::unordered_map<int, Held> m_held;              // by socket
    std::unordered_map<uint64_t, int> m_socketOf;      // socket by id
    std::set<std::pair<ZRT_UINT64, int>> m_deadlines;  // (deadline, socket), for held entries with one
    uint64_t m_nextId = 1;
    unsigned m_refused = 0;  // since the last log line
    ZRT_UINT64 m_lastRefusalLog = 0;
    char m_peek[CHttpParser::kMaxRequestSize + 1];  // the accept thread's
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TALK_RAWCONNECTIONGATE_H
