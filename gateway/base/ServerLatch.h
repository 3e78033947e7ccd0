// The plug-in's server as CreateServer returned it. A request can reach the
// plug-in, and so the gateway's sink, before CreateServer has returned: what
// must Send then waits here until the server is known, or until it gives up.
#ifndef GATEWAY_SERVER_LATCH_H
#define GATEWAY_SERVER_LATCH_H

#include <ProtocolWrapper.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

class ServerLatch {
public:
    // Once; wakes every waiter.
    void set(PROTOCOL_WRAPPER::IServer* server);
    // Null until set.
    PROTOCOL_WRAPPER::IServer* get() const { return m_server.load(); }
    // The server, or null once giveUp() is true. giveUp is asked again at every
    // wake(), under the latch's lock.
    PROTOCOL_WRAPPER::IServer* wait(const std::function<bool()>& giveUp);
    // A waiter's reason to give up may have changed (a stop was asked).
    void wake();

private:
    std::atomic<PROTOCOL_WRAPPER::IServer*> m_server{nullptr};
    std::mutex m_lock;
    std::condition_variable m_known;
};

#endif  // GATEWAY_SERVER_LATCH_H
