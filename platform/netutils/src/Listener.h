// One listening socket and the I/O thread that serves its connections.
//
// The thread waits on one epoll set holding the listening socket, every
// connection that is still reading its request or still watched for the
// client's hang-up, and the mailbox through which owner calls report ended
// connections. Every connection has a deadline until the owner has its
// request, and counts against the listener's bounds until it is removed. All callbacks of the listener run on this
// thread, with no lock of the library held, so the owner may call any API function from them (except DestroyListen of
// this listener, which would have to join the thread it runs on).
#ifndef NETUTILS_LISTENER_H
#define NETUTILS_LISTENER_H

#include "Connection.h"
#include "FileDelivery.h"
#include "HandleTable.h"
#include "netutils/ConnectionBudget.h"
#include "LoopMailbox.h"
#include "RequestParser.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace netutils {

using ConnectionTable = HandleTable<Connection>;

class Listener {
public:
    // Binds, listens and starts the I/O thread; null with `error` set on failure.
    static std::unique_ptr<Listener> start(const NET_HTTPSERVER_LISTEN_PARAM& param, ConnectionTable& handles,
                                           int& error);
    // A group of listeners shares its port through SO_REUSEPORT, which would let another
    // process asking for the same port join the group unnoticed. The group's port is first
    // claimed by a plain bind: 0 when nobody holds it (and, for port 0, which one is free).
    static int claimPort(const NET_HTTPSERVER_LISTEN_PARAM& param, uint16_t& port);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int port() const { return m_port; }
    bool runsOnCallerThread() const { return std::this_thread::get_id() == m_thread.get_id(); }
    // Stops accepting, ends every connection, reports the ends the owner has not
    // seen yet (from the I/O thread) and joins the thread. Idempotent.
    void stop();

private:
    using Clock = std::chrono::steady_clock;

    enum class Phase {
        Reading,    // the request is not whole yet; nobody knows the connection
        Reported,   // the owner has the handle; watched for the client's hang-up
        Lingering,  // the last reply is out; input is read and dropped until the client closes
    };

    struct Entry {
        std::shared_ptr<Connection> connection;
        std::unique_ptr<RequestParser> parser;  // while Reading, once the first bytes came
        Phase phase = Phase::Reading;
        bool bodyTimed = false;  // the head is whole: the deadline is the body's now
        bool hasDeadline = false;
        Clock::time_point deadline;
        int handle = -1;
        bool endReported = false;
        std::unique_ptr<FileDelivery> file;  // the rest of the body, written by this thread
    };

    Listener(const NET_HTTPSERVER_LISTEN_PARAM& param, ConnectionTable& handles);
    int open(const NET_HTTPSERVER_LISTEN_PARAM& param);
    void run();

    void acceptSome();
    // Takes the new connection unless the listener is at a bound; false when it was refused.
    bool admit(int fd, uint32_t address);
    void onConnectionEvent(uint64_t id, uint32_t events);
    void readRequest(uint64_t id, Entry& entry);
    void publish(uint64_t id, Entry& entry);
    void refuse(uint64_t id, Entry& entry, int status);
    // Reads and drops input; false when the client has closed or the socket failed.
    bool discardInput(Entry& entry);
    void onNotes();
    // A file the owner handed over: written from now on, or finished at once when its connection is gone.
    void attachFile(uint64_t id, std::unique_ptr<FileDelivery> file);
    void pumpFile(uint64_t id, Entry& entry);
    // The file's end ends the connection: the owner's callback first, then the end as for any connection.
    void endWithFile(uint64_t id, Entry& entry, int outcome);
    void watch(uint64_t id, Entry& entry, bool writable);
    // No events: a gone client's connection waiting for its file's note.
    void mute(uint64_t id, Entry& entry);
    void reportEnd(Entry& entry);
    void linger(uint64_t id, Entry& entry);
    void remove(uint64_t id);
    void setDeadline(uint64_t id, Entry& entry, Clock::time_point when);
    void clearDeadline(uint64_t id, Entry& entry);
    void expireDeadlines();
    int waitTimeoutMs() const;
    void pauseAccepting();
    void shutdownAll();

    ConnectionTable& m_handles;
    const int m_headTimeoutMs;  // 0: the receive time-out bounds the whole request
    const int m_recvTimeoutMs;
    const int m_sendTimeoutMs;
    const NET_HTTPSERVER_CB m_callback;
    void* const m_user;
    int m_listenFd = -1;
    int m_epollFd = -1;
    int m_port = 0;
    const std::shared_ptr<LoopMailbox> m_mailbox;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;

    // I/O thread only.
    std::unordered_map<uint64_t, Entry> m_entries;
    std::set<std::pair<Clock::time_point, uint64_t>> m_deadlines;
    ConnectionBudget m_budget;
    Clock::time_point m_acceptPausedUntil;
    bool m_acceptPaused = false;
    uint64_t m_nextId;
    std::vector<LoopMailbox::Note> m_notes;
    char m_readBuffer[16 * 1024];
    std::unique_ptr<char[]> m_fileBuffer;  // files sent by reading: the next piece of one of them
};

}  // namespace netutils

#endif
