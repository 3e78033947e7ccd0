#include "Listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>

namespace netutils {

namespace {

// epoll keys of the two descriptors that are not connections; connection ids start above.
constexpr uint64_t kListenKey = 0;
constexpr uint64_t kMailboxKey = 1;

constexpr int kDefaultRecvTimeoutMs = 30000;
constexpr int kDefaultSendTimeoutMs = 5000;
// After its last reply a connection is kept a little to read what the client still sends:
// closing a socket with unread input resets it, and the reset can destroy the reply
// before the client has read it.
constexpr int kLingerMs = 2000;
// Out of descriptors, accepting again at once would spin: wait this long first.
constexpr int kAcceptPauseMs = 100;
constexpr int kMaxEvents = 64;
constexpr int kAcceptBurst = 16;
// Reads of dropped input per wake-up, so that one chatty client cannot hold the thread.
constexpr int kMaxDiscardReads = 4;
// Files sent by reading go through one buffer of the loop; a larger one makes fewer system calls per byte
// while a client keeps up, and costs more bytes read twice when its socket takes only part of a piece.
constexpr size_t kFileBufferBytes = 64 * 1024;
// Bytes of one file per wake-up, so that the connections of one loop share it.
constexpr size_t kFileBytesPerWakeup = 1024 * 1024;

int millisecondsOrDefault(uint32_t value, int fallback)
{
    return value != 0 ? static_cast<int>(std::min<uint32_t>(value, INT32_MAX)) : fallback;
}

ConnectionBudget::Limits budgetLimits(const NET_HTTPSERVER_LISTEN_PARAM& param)
{
    ConnectionBudget::Limits limits;
    limits.maxConnections = param.dwMaxConnections;
    limits.maxPerAddress = param.dwMaxPerAddress;
    struct rlimit descriptors;
    if (param.dwReserveFds != 0 && getrlimit(RLIMIT_NOFILE, &descriptors) == 0 &&
        descriptors.rlim_cur != RLIM_INFINITY && descriptors.rlim_cur <= static_cast<rlim_t>(INT_MAX)) {
        limits.fdCeiling = static_cast<int>(descriptors.rlim_cur) -
                           static_cast<int>(std::min<uint32_t>(param.dwReserveFds, INT_MAX / 2));
    }
    return limits;
}

void sendSmall(int fd, const char* text, size_t length)
{
    // Fits any fresh socket buffer; if it does not, the client loses only this courtesy.
    ssize_t sent = send(fd, text, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)sent;
}

}  // namespace

std::unique_ptr<Listener> Listener::start(const NET_HTTPSERVER_LISTEN_PARAM& param, ConnectionTable& handles,
                                          int& error)
{
    std::unique_ptr<Listener> listener(new (std::nothrow) Listener(param, handles));
    if (!listener) {
        error = NET_ERR_NO_MEMORY;
        return nullptr;
    }
    error = listener->open(param);
    if (error != NET_ERR_NONE) {
        return nullptr;
    }
    try {
        listener->m_thread = std::thread(&Listener::run, listener.get());
    } catch (const std::system_error&) {
        error = NET_ERR_THREAD;
        return nullptr;
    }
    return listener;
}

Listener::Listener(const NET_HTTPSERVER_LISTEN_PARAM& param, ConnectionTable& handles)
    : m_handles(handles),
      m_headTimeoutMs(millisecondsOrDefault(param.dwHeadTimeout, 0)),
      m_recvTimeoutMs(millisecondsOrDefault(param.dwRecvTimeout, kDefaultRecvTimeoutMs)),
      m_sendTimeoutMs(millisecondsOrDefault(param.dwSendTimeout, kDefaultSendTimeoutMs)),
      m_callback(param.fnCallback),
      m_user(param.pUser),
      m_mailbox(std::make_shared<LoopMailbox>()),
      m_budget(budgetLimits(param)),
      m_nextId(kMailboxKey + 1)
{
}

Listener::~Listener()
{
    stop();
    if (m_epollFd >= 0) {
        ::close(m_epollFd);
    }
    if (m_listenFd >= 0) {
        ::close(m_listenFd);
    }
}

namespace {

bool listenAddress(const NET_HTTPSERVER_LISTEN_PARAM& param, sockaddr_in& address)
{
    address = sockaddr_in{};
    address.sin_family = AF_INET;
    address.sin_port = htons(param.wPort);
    // The record's text need not be terminated within its 128 bytes.
    char text[sizeof(param.szAddress) + 1] = {};
    memcpy(text, param.szAddress, sizeof(param.szAddress));
    if (text[0] == '\0') {
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        return true;
    }
    return inet_pton(AF_INET, text, &address.sin_addr) == 1;
}

}  // namespace

int Listener::claimPort(const NET_HTTPSERVER_LISTEN_PARAM& param, uint16_t& port)
{
    sockaddr_in address{};
    if (!listenAddress(param, address)) {
        return NET_ERR_PARAM;
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return NET_ERR_SOCKET;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in bound{};
    socklen_t boundLength = sizeof(bound);
    const bool free = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                      getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &boundLength) == 0;
    ::close(fd);
    if (!free) {
        return NET_ERR_SOCKET;
    }
    port = ntohs(bound.sin_port);
    return NET_ERR_NONE;
}

int Listener::open(const NET_HTTPSERVER_LISTEN_PARAM& param)
{
    sockaddr_in address{};
    if (!listenAddress(param, address)) {
        return NET_ERR_PARAM;
    }
    if (!m_mailbox->isValid()) {
        return NET_ERR_SOCKET;
    }

    m_listenFd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0) {
        return NET_ERR_SOCKET;
    }
    const int on = 1;
    setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));  // restart while old connections linger
    if (param.byIoThreads > 1) {
        setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));  // the group's threads share the port
    }
    if (bind(m_listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(m_listenFd, SOMAXCONN) != 0) {
        return NET_ERR_SOCKET;
    }
    sockaddr_in bound{};
    socklen_t boundLength = sizeof(bound);
    if (getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&bound), &boundLength) != 0) {
        return NET_ERR_SOCKET;
    }
    m_port = ntohs(bound.sin_port);

    m_epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (m_epollFd < 0) {
        return NET_ERR_SOCKET;
    }
    epoll_event listenEvent{};
    listenEvent.events = EPOLLIN;
    listenEvent.data.u64 = kListenKey;
    epoll_event mailboxEvent{};
    mailboxEvent.events = EPOLLIN;
    mailboxEvent.data.u64 = kMailboxKey;
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_listenFd, &listenEvent) != 0 ||
        epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_mailbox->eventFd(), &mailboxEvent) != 0) {
        return NET_ERR_SOCKET;
    }
    return NET_ERR_NONE;
}

void Listener::stop()
{
    if (!m_thread.joinable()) {
        return;
    }
    m_stopping.store(true);
    m_mailbox->wake();
    m_thread.join();
}

void Listener::run()
{
    // sendfile(2) cannot be told MSG_NOSIGNAL, and the kernel raises SIGPIPE on the thread that wrote to a
    // socket already shut (a client gone, an owner closing meanwhile). Blocked here, it stays pending on this
    // thread and never reaches a host that keeps the default disposition; the write still reports EPIPE.
    sigset_t brokenPipe;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);

    epoll_event events[kMaxEvents];
    while (!m_stopping.load()) {
        const int count = epoll_wait(m_epollFd, events, kMaxEvents, waitTimeoutMs());
        bool accept = false;
        for (int i = 0; i < count; ++i) {
            const uint64_t key = events[i].data.u64;
            if (key == kListenKey) {
                accept = true;
            } else if (key == kMailboxKey) {
                onNotes();
            } else {
                onConnectionEvent(key, events[i].events);
            }
        }
        // After the connections' own events: what has arrived on them counts before newcomers make room.
        if (accept) {
            acceptSome();
        }
        expireDeadlines();
    }
    shutdownAll();
}

int Listener::waitTimeoutMs() const
{
    Clock::time_point next = Clock::time_point::max();
    if (!m_deadlines.empty()) {
        next = m_deadlines.begin()->first;
    }
    if (m_acceptPaused) {
        next = std::min(next, m_acceptPausedUntil);
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
    return static_cast<int>(std::max<long long>(0, std::min<long long>(left + 1, INT32_MAX)));
}

void Listener::pauseAccepting()
{
    epoll_event none{};
    none.data.u64 = kListenKey;
    epoll_ctl(m_epollFd, EPOLL_CTL_MOD, m_listenFd, &none);
    m_acceptPaused = true;
    m_acceptPausedUntil = Clock::now() + std::chrono::milliseconds(kAcceptPauseMs);
}

void Listener::acceptSome()
{
    // A bounded number per wake-up (the listening socket is level-triggered: the rest come next time), so
    // that the connections already held are read between bursts of a flood.
    for (int accepted = 0; accepted < kAcceptBurst; ++accepted) {
        sockaddr_in peer{};
        socklen_t peerLength = sizeof(peer);
        const int fd =
            accept4(m_listenFd, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                pauseAccepting();
            }
            return;
        }
        if (!admit(fd, peer.sin_addr.s_addr)) {
            continue;
        }
        // Streamed replies go out block by block, and chunk-size lines are small: Nagle's
        // delay would stall them behind the client's delayed acknowledgements.
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        const uint64_t id = m_nextId++;
        std::shared_ptr<Connection> connection;
        try {
            connection = std::make_shared<Connection>(fd, id, m_sendTimeoutMs, m_mailbox);
        } catch (const std::bad_alloc&) {
            ::close(fd);  // the connection was never made, so the descriptor is still ours
            continue;
        }
        // From here on the connection owns the descriptor and closes it with its last reference.
        try {
            Entry entry;
            entry.connection = std::move(connection);
            Entry& stored = m_entries.emplace(id, std::move(entry)).first->second;
            m_budget.add(id, peer.sin_addr.s_addr);
            const int firstDeadlineMs = m_headTimeoutMs != 0 ? m_headTimeoutMs : m_recvTimeoutMs;
            setDeadline(id, stored, Clock::now() + std::chrono::milliseconds(firstDeadlineMs));
        } catch (const std::bad_alloc&) {
            remove(id);
            continue;
        }
        epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.u64 = id;
        if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
            remove(id);
            continue;
        }
        // A client sends its request with its connection: read now, it stops being evictable before the
        // connections queued behind it are taken, however many a flood has put there.
        onConnectionEvent(id, EPOLLIN);
    }
}

bool Listener::admit(int fd, uint32_t address)
{
    const ConnectionBudget::Decision decision = m_budget.decide(address, fd);
    if (!decision.admit) {
        // Every connection held is being served: the client learns so, and may try again later
        // (a proxy in front tries another server).
        static const char kBusy[] =
            "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
        sendSmall(fd, kBusy, sizeof(kBusy) - 1);
        ::close(fd);
        return false;
    }
    if (decision.evict) {
        remove(decision.victim);  // it had not delivered its request: nobody knows it
    }
    return true;
}

void Listener::onConnectionEvent(uint64_t id, uint32_t events)
{
    auto it = m_entries.find(id);
    if (it == m_entries.end()) {
        return;  // removed earlier in the same batch of events
    }
    Entry& entry = it->second;
    try {
        switch (entry.phase) {
        case Phase::Reading: readRequest(id, entry); break;
        case Phase::Reported: {
            if (entry.connection->isEnded()) {
                // An owner's call ended it (Close, Abort, a failed Reply) and left a note, which comes after any
                // file it handed over before: the note ends both, in that order.
                break;
            }
            // A writable socket alone is no news of the client: only a file being sent wants it.
            const bool input = (events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
            if (input && (!discardInput(entry) || (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0)) {
                if (entry.file) {
                    endWithFile(id, entry, NET_FILE_CLIENT_GONE);
                    break;
                }
                entry.connection->end(Connection::End::ClientGone);
                if (entry.connection->fileTaken()) {
                    // Its file is on the way through the mailbox: the file's callback comes first, then the end.
                    mute(id, entry);
                    break;
                }
                reportEnd(entry);
                remove(id);
            } else if (entry.file && (events & EPOLLOUT) != 0) {
                pumpFile(id, entry);
            }
            break;
        }
        case Phase::Lingering:
            if (!discardInput(entry) || (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
                remove(id);
            }
            break;
        }
    } catch (const std::bad_alloc&) {
        // Out of memory while reading a request: drop the connection rather than the thread.
        auto again = m_entries.find(id);
        if (again != m_entries.end() && again->second.phase == Phase::Reading) {
            remove(id);
        }
    }
}

void Listener::readRequest(uint64_t id, Entry& entry)
{
    const int fd = entry.connection->fd();
    for (;;) {
        const ssize_t got = recv(fd, m_readBuffer, sizeof(m_readBuffer), 0);
        if (got > 0) {
            if (!entry.parser) {
                entry.parser.reset(new RequestParser());  // an idle connection costs no parser
            }
            switch (entry.parser->feed(m_readBuffer, static_cast<size_t>(got))) {
            case RequestParser::Result::Complete: publish(id, entry); return;
            case RequestParser::Result::BadRequest: refuse(id, entry, 400); return;
            case RequestParser::Result::TooLarge: refuse(id, entry, 413); return;
            case RequestParser::Result::MethodNotAllowed: refuse(id, entry, 405); return;
            case RequestParser::Result::VersionNotSupported: refuse(id, entry, 505); return;
            case RequestParser::Result::Incomplete:
                if (m_headTimeoutMs != 0 && !entry.bodyTimed && entry.parser->headComplete()) {
                    entry.bodyTimed = true;
                    setDeadline(id, entry, Clock::now() + std::chrono::milliseconds(m_recvTimeoutMs));
                }
                if (entry.parser->takeContinueRequest()) {
                    static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
                    sendSmall(fd, kContinue, sizeof(kContinue) - 1);
                }
                continue;
            }
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return;
        }
        // The client closed or failed before its request was whole; nobody knows this
        // connection yet, so it goes without a word.
        remove(id);
        return;
    }
}

void Listener::publish(uint64_t id, Entry& entry)
{
    std::shared_ptr<Connection> connection = entry.connection;
    connection->adoptRequest(std::move(entry.parser));
    const int handle = m_handles.insert(connection);
    if (handle < 0) {
        remove(id);
        return;
    }
    entry.handle = handle;
    entry.phase = Phase::Reported;
    m_budget.setEvictable(id, false);
    clearDeadline(id, entry);

    const std::string& body = connection->request().body();
    NET_HTTPSERVER_EVENT event{};
    event.dwType = NET_HTTPSERVER_EVENT_REQUEST;
    event.dwDataLen = static_cast<uint32_t>(body.size());
    event.pData = body.c_str();
    // Owner calls made from the callback only post notes, so `entry` stays valid across it.
    m_callback(handle, &event, m_user);
}

void Listener::refuse(uint64_t id, Entry& entry, int status)
{
    char reply[192];
    const char* allow = status == 405 ? "Allow: GET, PUT, POST, DELETE\r\n" : "";
    const int length =
        snprintf(reply, sizeof(reply), "HTTP/1.1 %d %s\r\n%sConnection: close\r\nContent-Length: 0\r\n\r\n", status,
                 reasonPhrase(status), allow);
    sendSmall(entry.connection->fd(), reply, static_cast<size_t>(length));
    entry.connection->end(Connection::End::Completed);
    entry.parser.reset();
    linger(id, entry);
}

bool Listener::discardInput(Entry& entry)
{
    for (int i = 0; i < kMaxDiscardReads; ++i) {
        const ssize_t got = recv(entry.connection->fd(), m_readBuffer, sizeof(m_readBuffer), 0);
        if (got > 0) {
            continue;  // one request per connection: whatever follows it is dropped
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
    return true;
}

void Listener::onNotes()
{
    m_mailbox->takeAll(m_notes);
    for (LoopMailbox::Note& note : m_notes) {
        if (note.file) {
            attachFile(note.connectionId, std::move(note.file));
            continue;
        }
        auto it = m_entries.find(note.connectionId);
        if (it == m_entries.end()) {
            continue;  // already gone, and its end already reported
        }
        Entry& entry = it->second;
        if (entry.file) {
            // The owner closed or aborted the handle while its file was being sent.
            std::unique_ptr<FileDelivery> file = std::move(entry.file);
            watch(note.connectionId, entry, false);
            file->finish(NET_FILE_ENDED);
        }
        reportEnd(entry);
        if (note.reason == Connection::End::Completed || note.reason == Connection::End::Closed) {
            linger(note.connectionId, entry);
        } else {
            remove(note.connectionId);
        }
    }
    m_notes.clear();
}

void Listener::attachFile(uint64_t id, std::unique_ptr<FileDelivery> file)
{
    auto it = m_entries.find(id);
    if (it == m_entries.end() || it->second.phase != Phase::Reported || it->second.connection->isEnded()) {
        // The client or the owner's Close overtook the file.
        const bool clientGone =
            it != m_entries.end() && it->second.connection->endReason() == Connection::End::ClientGone;
        file->finish(clientGone ? NET_FILE_CLIENT_GONE : NET_FILE_ENDED);
        if (clientGone && it->second.phase == Phase::Reported) {
            reportEnd(it->second);  // held back for the file (see onConnectionEvent)
            remove(id);
        }
        return;
    }
    if (!m_fileBuffer) {
        m_fileBuffer.reset(new char[kFileBufferBytes]);
    }
    Entry& entry = it->second;
    entry.file = std::move(file);
    const Clock::time_point now = Clock::now();
    entry.file->start(now);
    setDeadline(id, entry, entry.file->nextCheck());
    watch(id, entry, true);
    pumpFile(id, entry);
}

void Listener::pumpFile(uint64_t id, Entry& entry)
{
    const FileDelivery::Step step = entry.file->pump(entry.connection->fd(), m_fileBuffer.get(), kFileBufferBytes,
                                                     kFileBytesPerWakeup, Clock::now());
    switch (step) {
    case FileDelivery::Step::Blocked: break;
    case FileDelivery::Step::Done: endWithFile(id, entry, NET_FILE_COMPLETE); break;
    case FileDelivery::Step::Broken: endWithFile(id, entry, NET_FILE_CLIENT_GONE); break;
    case FileDelivery::Step::ReadError: endWithFile(id, entry, NET_FILE_READ_ERROR); break;
    }
}

void Listener::endWithFile(uint64_t id, Entry& entry, int outcome)
{
    std::unique_ptr<FileDelivery> file = std::move(entry.file);
    watch(id, entry, false);
    Connection::End reason = Connection::End::Broken;  // a limit missed or a read failed: the body is cut short
    if (outcome == NET_FILE_COMPLETE) {
        reason = Connection::End::Completed;
    } else if (outcome == NET_FILE_CLIENT_GONE) {
        reason = Connection::End::ClientGone;
    }
    // Ended before the owner hears of it, so that nothing the owner does from its callback writes more.
    if (!entry.connection->end(reason)) {
        // An owner's Close or Abort came first (its shutdown is what failed the send): the file ended by its doing.
        reason = entry.connection->endReason();
        outcome = NET_FILE_ENDED;
    }
    file->finish(outcome);
    reportEnd(entry);
    if (reason == Connection::End::Completed || reason == Connection::End::Closed) {
        linger(id, entry);
    } else {
        remove(id);
    }
}

void Listener::mute(uint64_t id, Entry& entry)
{
    epoll_event none{};
    none.data.u64 = id;
    epoll_ctl(m_epollFd, EPOLL_CTL_MOD, entry.connection->fd(), &none);
}

void Listener::watch(uint64_t id, Entry& entry, bool writable)
{
    // Level-triggered: a writable socket watched without a file to send would wake the loop without end.
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | (writable ? EPOLLOUT : 0u);
    event.data.u64 = id;
    epoll_ctl(m_epollFd, EPOLL_CTL_MOD, entry.connection->fd(), &event);
}

void Listener::reportEnd(Entry& entry)
{
    // Once per connection, and only to an owner that still holds the handle.
    if (entry.phase != Phase::Reported || entry.endReported || entry.connection->isClosedByOwner()) {
        return;
    }
    entry.endReported = true;
    NET_HTTPSERVER_EVENT event{};
    event.dwType = NET_HTTPSERVER_EVENT_CLOSED;
    m_callback(entry.handle, &event, m_user);
}

void Listener::linger(uint64_t id, Entry& entry)
{
    entry.phase = Phase::Lingering;
    m_budget.setEvictable(id, true);
    setDeadline(id, entry, Clock::now() + std::chrono::milliseconds(kLingerMs));
}

void Listener::remove(uint64_t id)
{
    auto it = m_entries.find(id);
    if (it == m_entries.end()) {
        return;
    }
    epoll_ctl(m_epollFd, EPOLL_CTL_DEL, it->second.connection->fd(), nullptr);
    clearDeadline(id, it->second);
    if (it->second.file) {
        it->second.file->finish(NET_FILE_ENDED);  // every path above finishes it first; this one is owed too
    }
    m_budget.remove(id);
    // The socket closes here unless the owner still holds the handle or a call is using it.
    m_entries.erase(it);
}

void Listener::setDeadline(uint64_t id, Entry& entry, Clock::time_point when)
{
    clearDeadline(id, entry);
    entry.deadline = when;
    entry.hasDeadline = true;
    m_deadlines.emplace(when, id);
}

void Listener::clearDeadline(uint64_t id, Entry& entry)
{
    if (entry.hasDeadline) {
        m_deadlines.erase({entry.deadline, id});
        entry.hasDeadline = false;
    }
}

void Listener::expireDeadlines()
{
    const Clock::time_point now = Clock::now();
    if (m_acceptPaused && m_acceptPausedUntil <= now) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = kListenKey;
        epoll_ctl(m_epollFd, EPOLL_CTL_MOD, m_listenFd, &event);
        m_acceptPaused = false;
    }
    // A request not whole in time is dropped silently (its owner never learned the handle);
    // a lingering connection has waited long enough for its client.
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now) {
        const uint64_t id = m_deadlines.begin()->second;
        auto it = m_entries.find(id);
        if (it == m_entries.end() || !it->second.file) {
            remove(id);
            continue;
        }
        // A file's deadline is its next look at the send time-out and the minimum rate.
        Entry& entry = it->second;
        const int missed = entry.file->check(now);
        if (missed < 0) {
            setDeadline(id, entry, entry.file->nextCheck());
        } else {
            endWithFile(id, entry, missed);
        }
    }
}

void Listener::shutdownAll()
{
    m_mailbox->close();
    for (auto& item : m_entries) {
        Entry& entry = item.second;
        entry.connection->end(Connection::End::ListenerGone);
        if (entry.file) {
            entry.file->finish(NET_FILE_ENDED);
        }
        reportEnd(entry);
        epoll_ctl(m_epollFd, EPOLL_CTL_DEL, entry.connection->fd(), nullptr);
    }
    m_entries.clear();
    m_deadlines.clear();
    // Files handed over just before the mailbox closed are owed their callback too.
    m_mailbox->takeAll(m_notes);
    for (LoopMailbox::Note& note : m_notes) {
        if (note.file) {
            note.file->finish(NET_FILE_ENDED);
        }
    }
    m_notes.clear();
}

}  // namespace netutils
