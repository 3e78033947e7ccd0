#include "console/ConsoleServer.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <future>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "auth/DigestAuthenticator.h"
#include "base/GatewayMetrics.h"
#include "base/Logger.h"
#include "config/GatewayConfig.h"
#include "console/ConsoleFiles.h"
#include "console/ConsoleListing.h"
#include "console/ConsoleSessions.h"
#include "console/DownloadRelay.h"
#include "console/TalkBridge.h"
#include "ops/AcceptorOpen.h"
#include "media/MediaCatalog.h"
#include "talk/TalkDevices.h"

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

namespace {

constexpr auto kReadTimeout = std::chrono::seconds(10);   // for each request, from the end of the last reply
constexpr auto kWriteTimeout = std::chrono::seconds(20);  // for each write to a browser
constexpr size_t kMaxHeadBytes = 8 * 1024;
constexpr size_t kMaxBodyBytes = 4 * 1024;  // the sign-in form
constexpr unsigned kMaxRequestsPerConnection = 200;
constexpr size_t kMaxTalkMessageBytes = 16 * 1024;  // a second of 8 kHz samples
constexpr size_t kMaxEventMessageBytes = 1024;      // the page sends nothing on the events socket
constexpr size_t kMaxQueuedMessages = 64;           // to one socket; past it the newest are dropped
constexpr auto kEventInterval = std::chrono::milliseconds(500);
constexpr size_t kThreads = 2;

const char* const kPageHeaders[][2] = {
    {"Content-Security-Policy",
     "default-src 'self'; connect-src 'self'; media-src 'self' blob:; img-src 'self' data:; "
     "frame-ancestors 'none'; base-uri 'none'; form-action 'self'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    // Not no-referrer: a form sent under it carries "Origin: null", which the console refuses.
    {"Referrer-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

int64_t steadySecondsNow()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A connection the table can close: the oldest when too many are open, every one at stop.
class Closable {
public:
    virtual ~Closable() = default;
    virtual void close() = 0;
};

class ConnectionTable {
public:
    uint64_t add(const std::shared_ptr<Closable>& connection)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const uint64_t id = m_nextId++;
        m_connections[id] = connection;
        return id;
    }
    void remove(uint64_t id)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_connections.erase(id);
    }
    // The connections to close: the oldest past the cap, or every one.
    std::vector<std::shared_ptr<Closable>> take(size_t keep)
    {
        std::vector<std::shared_ptr<Closable>> taken;
        std::lock_guard<std::mutex> guard(m_lock);
        while (m_connections.size() > keep) {
            if (auto connection = m_connections.begin()->second.lock()) {
                taken.push_back(connection);
            }
            m_connections.erase(m_connections.begin());
        }
        return taken;
    }

private:
    std::mutex m_lock;  // guards the two below
    uint64_t m_nextId = 1;
    std::map<uint64_t, std::weak_ptr<Closable>> m_connections;
};

// The threads that download and talk for browsers: counted against their caps, cut and joined at stop.
class Workers {
public:
    // False when the cap of that kind is reached or the console stops.
    bool launch(bool talk, std::function<void()> job, std::function<void()> cut)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        reap();
        size_t& running = talk ? m_talks : m_downloads;
        if (m_stopping || running >= (talk ? ConsoleServer::kMaxTalks : ConsoleServer::kMaxDownloads)) {
            return false;
        }
        ++running;
        auto entry = m_workers.emplace(m_workers.end());
        entry->cut = std::move(cut);
        entry->done = std::make_shared<std::atomic<bool>>(false);
        entry->thread = std::thread([this, talk, job = std::move(job), done = entry->done] {
            job();
            std::lock_guard<std::mutex> guard(m_lock);
            --(talk ? m_talks : m_downloads);
            *done = true;
        });
        return true;
    }
    void stop()
    {
        std::list<Worker> workers;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_stopping = true;
            for (Worker& worker : m_workers) {
                if (worker.cut) {
                    worker.cut();
                }
            }
            workers.swap(m_workers);
        }
        for (Worker& worker : workers) {
            worker.thread.join();
        }
    }

private:
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
        std::function<void()> cut;
    };
    void reap()
    {
        for (auto it = m_workers.begin(); it != m_workers.end();) {
            if (*it->done) {
                it->thread.join();
                it = m_workers.erase(it);
            } else {
                ++it;
            }
        }
    }
    std::mutex m_lock;  // guards everything below
    std::list<Worker> m_workers;
    size_t m_downloads = 0;
    size_t m_talks = 0;
    bool m_stopping = false;
};

struct State {
    State(const GatewayConfig& config, const MediaCatalog& catalog, TalkDevices& talks, const GatewayMetrics& metrics,
          const DigestAuthenticator& users, Logger& log)
        : config(config),
          catalog(catalog),
          talks(talks),
          metrics(metrics),
          users(users),
          log(log),
          sessions(
              static_cast<int64_t>(config.consoleSessionMinutes) * 60,
              [&users](const std::string& user, std::string& password) { return users.passwordOf(user, password); },
              steadySecondsNow)
    {
    }

    const GatewayConfig& config;
    const MediaCatalog& catalog;
    TalkDevices& talks;
    const GatewayMetrics& metrics;
    const DigestAuthenticator& users;
    Logger& log;
    ConsoleSessions sessions;
    bool tls = false;
    std::atomic<bool> stopping{false};
    ConnectionTable connections;
    Workers workers;
    std::mutex countLock;  // guards consoleDownloads
    std::map<std::string, int> consoleDownloads;

    ConsoleCounters counters()
    {
        ConsoleCounters counters;
        counters.openDownloads = metrics.openDownloads();
        counters.openTalks = metrics.openTalks();
        std::lock_guard<std::mutex> guard(countLock);
        counters.consoleDownloads = consoleDownloads;
        return counters;
    }
    void countDownload(const std::string& devIndex, int change)
    {
        std::lock_guard<std::mutex> guard(countLock);
        if ((consoleDownloads[devIndex] += change) <= 0) {
            consoleDownloads.erase(devIndex);
        }
    }
    PluginCredentials credentialsOf(const std::string& user) const
    {
        PluginCredentials credentials{user, ""};
        users.passwordOf(user, credentials.password);
        return credentials;
    }
};

// The value of a query parameter, %-decoded; "" when absent.
std::string queryParam(const std::string& target, const std::string& name)
{
    const size_t query = target.find('?');
    return query == std::string::npos ? "" : formField(target.substr(query + 1), name);
}

std::string pathOf(const std::string& target)
{
    return target.substr(0, target.find('?'));
}

std::string jsonText(const std::string& text)
{
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", c);
            quoted += escaped;
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

// Streams a talk capture to the browser: the whole file, or one range of it (for <audio>).
std::string sendCapture(const std::string& path, const std::string& name, bool attachment, const std::string& range,
                        const BrowserWrite& write)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (fd >= 0) {
            ::close(fd);
        }
        const std::string reply = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        write(reply.data(), reply.size());
        return "not found";
    }
    const uint64_t size = static_cast<uint64_t>(info.st_size);
    bool asked = false;
    // The capture has no stream head: the same parsing, shifted back.
    const std::string shifted = deviceRange(range, size, asked);
    uint64_t first = strtoull(shifted.c_str() + 6, nullptr, 10) - kStreamHeadBytes;
    const size_t dash = shifted.find('-');
    uint64_t last =
        dash + 1 < shifted.size() ? strtoull(shifted.c_str() + dash + 1, nullptr, 10) - kStreamHeadBytes : size - 1;
    std::string head;
    if (asked && (first >= size || size == 0)) {
        head = "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" + std::to_string(size) +
               "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        write(head.data(), head.size());
        ::close(fd);
        return "range past the end";
    }
    last = size == 0 ? 0 : std::min(last, size - 1);
    const uint64_t length = size == 0 ? 0 : last - first + 1;
    const bool wav = name.size() > 4 && name.compare(name.size() - 4, 4, ".wav") == 0;
    head = std::string(asked ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n") +
           "Content-Type: " + (wav ? "audio/wav" : "application/octet-stream") +
           "\r\nContent-Disposition: " + (attachment ? "attachment" : "inline") + "; filename=\"" +
           dispositionName(name) + "\"\r\nAccept-Ranges: bytes\r\nContent-Length: " + std::to_string(length) +
           "\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\nConnection: close\r\n";
    if (asked) {
        head += "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
                std::to_string(size) + "\r\n";
    }
    head += "\r\n";
    bool ok = write(head.data(), head.size());
    std::vector<char> buffer(64 * 1024);
    uint64_t sent = 0;
    while (ok && sent < length) {
        const ssize_t got = pread(fd, buffer.data(), std::min<uint64_t>(buffer.size(), length - sent),
                                  static_cast<off_t>(first + sent));
        if (got <= 0) {
            break;
        }
        ok = write(buffer.data(), static_cast<size_t>(got));
        sent += static_cast<uint64_t>(got);
    }
    ::close(fd);
    return "capture " + name + ": " + std::to_string(sent) + " bytes";
}

// ---- WebSocket sessions ----

// What both sockets share: the accept with its bounds, one write at a time from a bounded queue.
template <class Stream>
class Socket : public Closable {
public:
    Socket(Stream&& stream, State& state, size_t maxMessage) : m_ws(std::move(stream)), m_state(state)
    {
        m_ws.read_message_max(maxMessage);
    }
    ~Socket() override { m_state.connections.remove(m_id); }

    void close() override
    {
        net::post(m_ws.get_executor(), [self = self()] {
            beast::error_code ignored;
            beast::get_lowest_layer(self->m_ws).socket().shutdown(tcp::socket::shutdown_both, ignored);
            beast::get_lowest_layer(self->m_ws).close();
        });
    }

protected:
    virtual std::shared_ptr<Socket> self() = 0;
    virtual void opened() = 0;
    virtual void received(bool binary) = 0;
    virtual void gone() {}

    void accept(http::request<http::string_body> request)
    {
        m_id = m_state.connections.add(self());
        beast::get_lowest_layer(m_ws).expires_never();  // the socket's own time-outs from here
        m_ws.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        m_ws.async_accept(request, [self = self()](beast::error_code error) {
            if (error) {
                return self->gone();
            }
            self->opened();
            self->read();
        });
    }

    void read()
    {
        m_ws.async_read(m_incoming, [self = self()](beast::error_code error, size_t) {
            if (error) {
                return self->gone();
            }
            self->received(self->m_ws.got_binary());
            self->m_incoming.clear();
            self->read();
        });
    }

    // On the socket's strand.
    void send(std::string message, bool binary)
    {
        if (m_closing || m_outgoing.size() >= kMaxQueuedMessages) {
            return;  // a browser that does not keep up loses audio, not the gateway's memory
        }
        queue(Outgoing{std::move(message), binary ? Outgoing::kBinary : Outgoing::kText});
    }

    void sendFromAnyThread(std::string message, bool binary)
    {
        net::post(m_ws.get_executor(),
                  [weak = std::weak_ptr<Socket>(self()), message = std::move(message), binary]() mutable {
                      if (auto socket = weak.lock()) {
                          socket->send(std::move(message), binary);
                      }
                  });
    }

    // On the socket's strand: after what is queued, a close frame with the reason.
    void closeWith(const std::string& reason)
    {
        if (!m_closing) {
            m_closing = true;
            queue(Outgoing{reason.substr(0, 120), Outgoing::kClose});
        }
    }

    websocket::stream<Stream> m_ws;
    State& m_state;
    beast::flat_buffer m_incoming;

private:
    // One write at a time (a close frame counts as one): the rest waits in order.
    struct Outgoing {
        enum Kind { kText, kBinary, kClose };
        std::string data;
        Kind kind;
    };

    void queue(Outgoing outgoing)
    {
        m_outgoing.push_back(std::move(outgoing));
        if (m_outgoing.size() == 1) {
            writeNext();
        }
    }

    void writeNext()
    {
        Outgoing& next = m_outgoing.front();
        if (next.kind == Outgoing::kClose) {
            m_ws.async_close(websocket::close_reason(websocket::close_code::normal, next.data),
                             [self = self()](beast::error_code) {});
            return;
        }
        m_ws.binary(next.kind == Outgoing::kBinary);
        m_ws.async_write(net::buffer(next.data), [self = self()](beast::error_code error, size_t) {
            self->m_outgoing.pop_front();
            if (!error && !self->m_outgoing.empty()) {
                self->writeNext();
            }
        });
    }

    uint64_t m_id = 0;
    bool m_closing = false;
    std::deque<Outgoing> m_outgoing;
};

// Pushes the devices' counters whenever they change.
template <class Stream>
class EventSocket : public Socket<Stream>, public std::enable_shared_from_this<EventSocket<Stream>> {
public:
    EventSocket(Stream&& stream, State& state)
        : Socket<Stream>(std::move(stream), state, kMaxEventMessageBytes), m_timer(this->m_ws.get_executor())
    {
    }
    void start(http::request<http::string_body> request) { this->accept(std::move(request)); }

private:
    std::shared_ptr<Socket<Stream>> self() override { return this->shared_from_this(); }
    void opened() override { tick(); }
    void received(bool) override {}
    void gone() override { m_timer.cancel(); }

    void tick()
    {
        auto library = this->m_state.catalog.current();
        auto talking = this->m_state.talks.current();
        std::string counters = consoleDevicesJson(*library, *talking, this->m_state.talks.owners(),
                                                  this->m_state.config.httpPort, this->m_state.counters(), false);
        if (counters != m_last) {
            m_last = counters;
            this->send(std::move(counters), false);
        }
        m_timer.expires_after(kEventInterval);
        m_timer.async_wait([weak = std::weak_ptr<EventSocket>(this->shared_from_this())](beast::error_code error) {
            auto socket = weak.lock();
            if (!error && socket) {
                socket->tick();
            }
        });
    }

    net::steady_timer m_timer;
    std::string m_last;
};

// Push-to-talk: the page's samples in, the device's samples out, over a TalkBridge.
template <class Stream>
class TalkSocket : public Socket<Stream>, public std::enable_shared_from_this<TalkSocket<Stream>> {
public:
    TalkSocket(Stream&& stream, State& state, const TalkDevice& device, std::string user)
        : Socket<Stream>(std::move(stream), state, kMaxTalkMessageBytes), m_device(device), m_user(std::move(user))
    {
    }
    void start(http::request<http::string_body> request) { this->accept(std::move(request)); }

private:
    std::shared_ptr<Socket<Stream>> self() override { return this->shared_from_this(); }

    void opened() override
    {
        State& state = this->m_state;
        TalkBridge::Setup setup;
        setup.httpPort = state.config.httpPort;
        setup.audioPort = state.config.audioTalkPort;
        setup.channel = m_device.channel;
        setup.codec = m_device.codec;
        setup.credentials = state.credentialsOf(m_user);
        setup.label = m_device.devIndex + " (" + m_user + ")";
        std::weak_ptr<TalkSocket> weak = this->shared_from_this();
        m_bridge = std::make_shared<TalkBridge>(
            setup,
            [weak, codec = std::string(m_device.codec->name)] {
                if (auto socket = weak.lock()) {
                    socket->sendFromAnyThread("{\"type\":\"open\",\"codec\":" + jsonText(codec) + "}", false);
                }
            },
            [weak](std::vector<int16_t> samples) {
                if (auto socket = weak.lock()) {
                    socket->sendFromAnyThread(
                        std::string(reinterpret_cast<const char*>(samples.data()), samples.size() * 2), true);
                }
            },
            [weak](const std::string& why) {
                auto socket = weak.lock();
                if (!socket) {
                    return;
                }
                net::post(socket->m_ws.get_executor(), [socket, why] {
                    socket->send("{\"type\":\"ended\",\"reason\":" + jsonText(why) + "}", false);
                    socket->closeWith(why.empty() ? "talk closed" : "talk refused");
                });
            },
            state.log);
        auto bridge = m_bridge;
        if (!state.workers.launch(
                true, [bridge] { bridge->run(); }, [bridge] { bridge->cut(); })) {
            m_bridge.reset();
            this->send("{\"type\":\"ended\",\"reason\":\"too many talks from the console at once\"}", false);
            this->closeWith("busy");
        }
    }

    void received(bool binary) override
    {
        if (!binary || !m_bridge) {
            return;
        }
        // 16-bit little-endian samples at 8 kHz; an odd last byte is not a sample.
        const auto data = this->m_incoming.data();
        std::vector<int16_t> samples(net::buffer_size(data) / 2);
        net::buffer_copy(net::buffer(samples.data(), samples.size() * 2), data);
        m_bridge->speak(samples.data(), samples.size());
    }

    void gone() override
    {
        if (m_bridge) {
            m_bridge->finish();  // the page let go: what it said is sent, then the talk closes
        }
    }

    TalkDevice m_device;
    std::string m_user;
    std::shared_ptr<TalkBridge> m_bridge;
};

// ---- HTTP ----

struct Reply {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> fields;
};

Reply textReply(int status, const std::string& text)
{
    Reply reply;
    reply.status = status;
    reply.contentType = "text/plain; charset=utf-8";
    reply.body = text + "\n";
    return reply;
}

Reply redirect(const std::string& location)
{
    Reply reply = textReply(303, "see " + location);
    reply.fields.emplace_back("Location", location);
    return reply;
}

template <class Stream>
class Connection : public Closable, public std::enable_shared_from_this<Connection<Stream>> {
public:
    Connection(Stream&& stream, State& state) : m_stream(std::move(stream)), m_state(state) {}
    ~Connection() override { m_state.connections.remove(m_id); }

    void start()
    {
        beast::error_code ignored;
        m_address = beast::get_lowest_layer(m_stream).socket().remote_endpoint(ignored).address().to_string();
        m_id = m_state.connections.add(this->shared_from_this());
        net::dispatch(m_stream.get_executor(), [self = this->shared_from_this()] { self->handshake(); });
    }

    void close() override
    {
        net::post(m_stream.get_executor(), [self = this->shared_from_this()] { self->closeNow(); });
    }

private:
    static constexpr bool kTls = !std::is_same<Stream, beast::tcp_stream>::value;

    void closeNow()
    {
        beast::error_code ignored;
        beast::get_lowest_layer(m_stream).socket().shutdown(tcp::socket::shutdown_both, ignored);
        beast::get_lowest_layer(m_stream).close();
    }

    void handshake()
    {
        if constexpr (kTls) {
            beast::get_lowest_layer(m_stream).expires_after(kReadTimeout);
            m_stream.async_handshake(ssl::stream_base::server,
                                     [self = this->shared_from_this()](beast::error_code error) {
                                         if (!error) {
                                             self->read();
                                         }
                                     });
        } else {
            read();
        }
    }

    void read()
    {
        m_parser.emplace();
        m_parser->header_limit(static_cast<std::uint32_t>(kMaxHeadBytes));
        m_parser->body_limit(kMaxBodyBytes);
        beast::get_lowest_layer(m_stream).expires_after(kReadTimeout);
        http::async_read(m_stream, m_buffer, *m_parser,
                         [self = this->shared_from_this()](beast::error_code error, size_t) { self->onRead(error); });
    }

    void onRead(beast::error_code error)
    {
        if (error) {
            const bool malformed = error.category() == http::make_error_code(http::error::bad_method).category() &&
                                   error != http::error::end_of_stream && error != http::error::partial_message;
            if (!malformed) {
                return closeNow();
            }
            m_keepAlive = false;
            return answer(textReply(error == http::error::body_limit     ? 413
                                    : error == http::error::header_limit ? 431
                                                                         : 400,
                                    "bad request"));
        }
        auto& request = m_parser->get();
        m_keepAlive = request.keep_alive() && ++m_served < kMaxRequestsPerConnection;
        const std::string target(request.target());
        const std::string path = pathOf(target);
        if (websocket::is_upgrade(request)) {
            return upgrade(path, target);
        }
        std::string user;
        const bool signedIn =
            m_state.sessions.find(cookieValue(std::string(request[http::field::cookie]), kSessionCookieName), user);
        const bool get = request.method() == http::verb::get || request.method() == http::verb::head;
        if (request.method() == http::verb::post) {
            if (!sameOrigin()) {
                return answer(textReply(403, "cross-origin request refused"));
            }
            if (path == "/signin") {
                return answer(signIn(request.body()));
            }
            if (path == "/signout") {
                m_state.sessions.signOut(cookieValue(std::string(request[http::field::cookie]), kSessionCookieName));
                Reply reply = redirect("/");
                reply.fields.emplace_back("Set-Cookie", clearedSessionCookie(kTls));
                return answer(reply);
            }
            return answer(textReply(404, "not found"));
        }
        if (!get) {
            Reply reply = textReply(405, "method not allowed");
            reply.fields.emplace_back("Allow", "GET, HEAD, POST");
            return answer(reply);
        }
        if (path == "/") {
            return answer(page("/index.html"));
        }
        if (findConsoleFile(path) != nullptr) {
            return answer(page(path));
        }
        if (!signedIn) {
            return answer(textReply(401, "sign in first"));
        }
        if (path == "/api/session") {
            Reply reply;
            reply.body = "{\"user\":" + jsonText(user) +
                         ",\"idleSeconds\":" + std::to_string(m_state.sessions.idleSeconds()) + "}";
            return answer(reply);
        }
        auto library = m_state.catalog.current();
        auto talking = m_state.talks.current();
        if (path == "/api/devices") {
            Reply reply;
            reply.body = consoleDevicesJson(*library, *talking, m_state.talks.owners(), m_state.config.httpPort,
                                            m_state.counters(), true);
            return answer(reply);
        }
        const std::string devIndex = queryParam(target, "device");
        const DeviceMedia* media = library->findByIndex(devIndex);
        if (media == nullptr) {
            return answer(textReply(404, "no such device"));
        }
        if (path == "/api/captures") {
            const TalkDevice* talker = talkDeviceOf(*library, *talking, devIndex);
            Reply reply;
            reply.body =
                talkCapturesJson(talker ? listTalkCaptures(talker->captureFolder) : std::vector<TalkCapture>());
            return answer(reply);
        }
        if (path == "/download") {
            const std::string name = queryParam(target, "name");
            for (const Recording& recording : media->recordings) {
                if (recording.name == name) {
                    return download(*media, recording, user, request);
                }
            }
            return answer(textReply(404, "no such recording"));
        }
        if (path == "/capture") {
            const TalkDevice* talker = talkDeviceOf(*library, *talking, devIndex);
            const std::string name = queryParam(target, "name");
            // Only a name the listing shows: nothing else of the folder is reachable.
            for (const TalkCapture& capture :
                 talker ? listTalkCaptures(talker->captureFolder) : std::vector<TalkCapture>()) {
                if (capture.name == name) {
                    return streamCapture(talker->captureFolder + "/" + name, name,
                                         queryParam(target, "download") == "1", request);
                }
            }
            return answer(textReply(404, "no such capture"));
        }
        return answer(textReply(404, "not found"));
    }

    bool sameOrigin()
    {
        const auto& request = m_parser->get();
        return originMatches(std::string(request[http::field::origin]), std::string(request[http::field::host]), kTls);
    }

    Reply signIn(const std::string& body)
    {
        const std::string user = formField(body, "user");
        std::string token, locked;
        const auto outcome = m_state.sessions.signIn(m_address, user, formField(body, "password"), token, locked);
        if (!locked.empty()) {
            m_state.log.logf(kLogWarn, "console: too many failed sign-ins, %s locked for %lld s", locked.c_str(),
                             static_cast<long long>(LoginThrottle::kLockSeconds));
        }
        if (outcome != ConsoleSessions::SignIn::kAccepted) {
            m_state.log.logf(kLogInfo, "console: sign-in of \"%s\" from %s refused%s", user.c_str(), m_address.c_str(),
                             outcome == ConsoleSessions::SignIn::kThrottled ? " (throttled)" : "");
            return redirect(outcome == ConsoleSessions::SignIn::kThrottled ? "/?signin=throttled" : "/?signin=refused");
        }
        m_state.log.logf(kLogInfo, "console: \"%s\" signed in from %s", user.c_str(), m_address.c_str());
        Reply reply = redirect("/");
        reply.fields.emplace_back("Set-Cookie", sessionCookie(token, m_state.sessions.idleSeconds(), kTls));
        return reply;
    }

    Reply page(const std::string& path)
    {
        const ConsoleFile* file = findConsoleFile(path);
        Reply reply;
        reply.contentType = file->contentType;
        reply.body.assign(reinterpret_cast<const char*>(file->data), file->size);
        for (const auto& field : kPageHeaders) {
            reply.fields.emplace_back(field[0], field[1]);
        }
        return reply;
    }

    void upgrade(const std::string& path, const std::string& target)
    {
        auto& request = m_parser->get();
        std::string user;
        if (!sameOrigin()) {
            m_keepAlive = false;
            return answer(textReply(403, "cross-origin WebSocket refused"));
        }
        if (!m_state.sessions.find(cookieValue(std::string(request[http::field::cookie]), kSessionCookieName), user)) {
            m_keepAlive = false;
            return answer(textReply(401, "sign in first"));
        }
        if (path == "/ws/events") {
            return std::make_shared<EventSocket<Stream>>(std::move(m_stream), m_state)->start(m_parser->release());
        }
        if (path == "/ws/talk") {
            auto library = m_state.catalog.current();
            auto talking = m_state.talks.current();
            const TalkDevice* device = talkDeviceOf(*library, *talking, queryParam(target, "device"));
            if (device == nullptr) {
                m_keepAlive = false;
                return answer(textReply(404, "no such talking device"));
            }
            const std::string why = whyConsoleCannotTalk(*device->codec);
            if (!why.empty()) {
                m_keepAlive = false;
                return answer(textReply(409, why));
            }
            return std::make_shared<TalkSocket<Stream>>(std::move(m_stream), m_state, *device, user)
                ->start(m_parser->release());
        }
        m_keepAlive = false;
        answer(textReply(404, "not found"));
    }

    // A write to the browser from a worker thread, done on the connection's strand with its deadline.
    BrowserWrite browserWrite()
    {
        return [self = this->shared_from_this()](const char* data, size_t size) {
            auto done = std::make_shared<std::promise<bool>>();
            auto written = done->get_future();
            net::post(self->m_stream.get_executor(), [self, data, size, done] {
                beast::get_lowest_layer(self->m_stream).expires_after(kWriteTimeout);
                net::async_write(self->m_stream, net::buffer(data, size),
                                 [done](beast::error_code error, size_t) { done->set_value(!error); });
            });
            try {
                return written.get();
            } catch (const std::future_error&) {
                return false;  // the console stopped with the write queued
            }
        };
    }

    // Hands the connection to a worker that writes the whole reply and closes it.
    void launchWorker(const std::function<std::string(const BrowserWrite&)>& job, const std::string& what,
                      const std::string& devIndex)
    {
        auto self = this->shared_from_this();
        const BrowserWrite write = browserWrite();
        const bool launched = m_state.workers.launch(
            false,
            [self, job, write, what, devIndex] {
                if (!devIndex.empty()) {
                    self->m_state.countDownload(devIndex, 1);
                }
                const std::string outcome = job(write);
                if (!devIndex.empty()) {
                    self->m_state.countDownload(devIndex, -1);
                }
                self->m_state.log.logf(kLogInfo, "console: %s: %s", what.c_str(), outcome.c_str());
                self->close();
            },
            nullptr);
        if (!launched) {
            m_keepAlive = false;
            Reply reply = textReply(503, "too many downloads from the console at once; try again shortly");
            reply.fields.emplace_back("Retry-After", "5");
            answer(reply);
        }
    }

    void download(const DeviceMedia& media, const Recording& recording, const std::string& user,
                  const http::request<http::string_body>& request)
    {
        RelayRequest relay;
        relay.httpPort = m_state.config.httpPort;
        relay.device = media.device;
        relay.recording = recording;
        relay.range = std::string(request[http::field::range]);
        relay.ifRange = std::string(request[http::field::if_range]);
        relay.credentials = m_state.credentialsOf(user);
        const std::atomic<bool>* stop = &m_state.stopping;
        launchWorker([relay, stop](const BrowserWrite& write) { return relayDownload(relay, stop, write); },
                     "download of " + recording.name + " by \"" + user + "\"" +
                         (relay.range.empty() ? "" : " (" + relay.range.substr(0, 40) + ")"),
                     media.device.devIndex);
    }

    void streamCapture(const std::string& path, const std::string& name, bool attachment,
                       const http::request<http::string_body>& request)
    {
        const std::string range(request[http::field::range]);
        launchWorker([path, name, attachment,
                      range](const BrowserWrite& write) { return sendCapture(path, name, attachment, range, write); },
                     "talk capture " + name, "");
    }

    void answer(const Reply& reply)
    {
        const bool head = m_parser && m_parser->get().method() == http::verb::head;
        m_response = {};
        m_response.version(11);
        m_response.result(static_cast<unsigned>(reply.status));
        m_response.set(http::field::content_type, reply.contentType);
        if (reply.contentType == "application/json") {
            m_response.set(http::field::cache_control, "no-store");
        }
        for (const auto& field : reply.fields) {
            m_response.set(field.first, field.second);
        }
        m_response.content_length(reply.body.size());
        m_response.keep_alive(m_keepAlive);
        if (!head) {
            m_response.body() = reply.body;
        }
        beast::get_lowest_layer(m_stream).expires_after(kWriteTimeout);
        http::async_write(m_stream, m_response, [self = this->shared_from_this()](beast::error_code error, size_t) {
            if (error || !self->m_keepAlive) {
                return self->closeNow();
            }
            self->read();
        });
    }

    Stream m_stream;
    State& m_state;
    uint64_t m_id = 0;
    std::string m_address;
    beast::flat_buffer m_buffer;
    std::optional<http::request_parser<http::string_body>> m_parser;
    http::response<http::string_body> m_response;
    unsigned m_served = 0;
    bool m_keepAlive = false;
};

}  // namespace

class ConsoleServer::Impl {
public:
    Impl(const GatewayConfig& config, const MediaCatalog& catalog, TalkDevices& talks, const GatewayMetrics& metrics,
         const DigestAuthenticator& users, Logger& log)
        : m_state(config, catalog, talks, metrics, users, log)
    {
    }

    bool start(std::string& error)
    {
        const GatewayConfig& config = m_state.config;
        m_state.tls = !config.consoleCertificate.empty();
        if (m_state.tls) {
            beast::error_code failure;
            m_tls.emplace(ssl::context::tls_server);
            m_tls->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                               ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
            m_tls->use_certificate_chain_file(config.consoleCertificate, failure);
            if (failure) {
                error = "console.certificate " + config.consoleCertificate + ": " + failure.message();
                return false;
            }
            m_tls->use_private_key_file(config.consoleKey, ssl::context::pem, failure);
            if (failure) {
                error = "console.key " + config.consoleKey + ": " + failure.message();
                return false;
            }
        }
        beast::error_code failure;
        if (!openAcceptor(m_acceptor, config.console, failure)) {
            error = "console " + listenAddressText(config.console.host, config.console.port) + ": " + failure.message();
            return false;
        }
        m_port = m_acceptor.local_endpoint(failure).port();
        accept();
        for (size_t i = 0; i < kThreads; ++i) {
            m_threads.emplace_back([this] { run(); });
        }
        return true;
    }

    void stop()
    {
        if (m_threads.empty()) {
            return;
        }
        m_state.stopping = true;
        net::post(m_acceptStrand, [this] {
            beast::error_code ignored;
            m_acceptor.close(ignored);
        });
        for (auto& connection : m_state.connections.take(0)) {
            connection->close();
        }
        // The workers' writes finish or fail while the threads still run.
        m_state.workers.stop();
        m_context.stop();
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
        m_port = 0;
    }

    int port() const { return m_port; }
    std::string url() const
    {
        return std::string(m_state.tls ? "https://" : "http://") +
               listenAddressText(m_state.config.console.host, m_port) + "/";
    }

private:
    void run()
    {
        for (;;) {
            try {
                m_context.run();
                return;
            } catch (const std::exception& failure) {
                m_state.log.logf(kLogError, "console: %s", failure.what());
            }
        }
    }

    void accept()
    {
        m_acceptor.async_accept(net::make_strand(m_context), [this](beast::error_code error, tcp::socket socket) {
            if (error == net::error::operation_aborted || !m_acceptor.is_open()) {
                return;
            }
            if (!error) {
                for (auto& oldest : m_state.connections.take(kMaxConnections - 1)) {
                    oldest->close();  // many connections at once: the one held longest goes
                }
                if (m_tls) {
                    using TlsStream = beast::ssl_stream<beast::tcp_stream>;
                    std::make_shared<Connection<TlsStream>>(TlsStream(std::move(socket), *m_tls), m_state)->start();
                } else {
                    std::make_shared<Connection<beast::tcp_stream>>(beast::tcp_stream(std::move(socket)), m_state)
                        ->start();
                }
            } else if (error == net::error::no_descriptors || error == net::error::no_buffer_space) {
                m_retry.expires_after(std::chrono::milliseconds(100));
                m_retry.async_wait([this](beast::error_code) { accept(); });
                return;
            }
            accept();
        });
    }

    State m_state;
    std::optional<ssl::context> m_tls;
    net::io_context m_context;
    std::optional<net::executor_work_guard<net::io_context::executor_type>> m_work{m_context.get_executor()};
    net::strand<net::io_context::executor_type> m_acceptStrand{net::make_strand(m_context)};
    tcp::acceptor m_acceptor{m_acceptStrand};
    net::steady_timer m_retry{m_acceptStrand};
    std::vector<std::thread> m_threads;
    std::atomic<int> m_port{0};
};

ConsoleServer::ConsoleServer(const GatewayConfig& config, const MediaCatalog& catalog, TalkDevices& talks,
                             const GatewayMetrics& metrics, const DigestAuthenticator& users, Logger& log)
    : m_impl(new Impl(config, catalog, talks, metrics, users, log))
{
}

ConsoleServer::~ConsoleServer()
{
    stop();
}

bool ConsoleServer::start(std::string& error)
{
    return m_impl->start(error);
}

void ConsoleServer::stop()
{
    m_impl->stop();
}

int ConsoleServer::port() const
{
    return m_impl->port();
}

std::string ConsoleServer::url() const
{
    return m_impl->url();
}
