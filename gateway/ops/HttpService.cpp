#include "ops/HttpService.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "auth/BearerToken.h"
#include "base/Logger.h"
#include "ops/AcceptorOpen.h"

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {

class Session;

// The connections of a service by age, so that the oldest can make room.
class SessionTable {
public:
    uint64_t add(const std::shared_ptr<Session>& session);
    void remove(uint64_t id);
    size_t size();
    // The connection held longest, taken out of the table (it is closing).
    std::shared_ptr<Session> takeOldest();

private:
    std::mutex m_lock;  // guards the two below
    uint64_t m_nextId = 1;
    std::map<uint64_t, std::weak_ptr<Session>> m_sessions;
};

struct Shared {
    HttpService::Limits limits;
    HttpService::Handler handler;
    std::string token;
    SessionTable sessions;
};

// One connection: read a request, answer it, and again while the client keeps the connection.
// Everything of it runs on its strand.
class Session : public std::enable_shared_from_this<Session> {
public:
    Session(tcp::socket&& socket, Shared& shared) : m_stream(std::move(socket)), m_shared(shared) {}
    ~Session() { m_shared.sessions.remove(m_id); }

    void start()
    {
        m_id = m_shared.sessions.add(shared_from_this());
        net::dispatch(m_stream.get_executor(), [self = shared_from_this()] { self->read(); });
    }

    // From any thread.
    void close()
    {
        net::post(m_stream.get_executor(), [self = shared_from_this()] {
            beast::error_code ignored;
            self->m_stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
            self->m_stream.close();
        });
    }

private:
    void read()
    {
        m_parser.emplace();
        m_parser->header_limit(static_cast<std::uint32_t>(m_shared.limits.maxHeadBytes));
        m_parser->body_limit(m_shared.limits.maxBodyBytes);
        m_stream.expires_after(m_shared.limits.readTimeout);
        http::async_read(m_stream, m_buffer, *m_parser,
                         [self = shared_from_this()](beast::error_code error, size_t) { self->onRead(error); });
    }

    void onRead(beast::error_code error)
    {
        if (error) {
            // A malformed or oversized request is answered; a time-out, a hang-up or a close is not.
            const bool malformed = error.category() == http::make_error_code(http::error::bad_method).category() &&
                                   error != http::error::end_of_stream && error != http::error::partial_message;
            if (!malformed) {
                m_stream.close();
                return;
            }
            m_keepAlive = false;
            if (error == http::error::header_limit) {
                return answer(431, "request header fields too large\n");
            }
            return answer(error == http::error::body_limit ? 413 : 400, "bad request\n");
        }
        const auto& request = m_parser->get();
        ++m_served;
        m_keepAlive = request.keep_alive() && m_served < m_shared.limits.maxRequestsPerConnection;
        if (!m_shared.token.empty() &&
            !bearerAuthorizationMatches(std::string(request[http::field::authorization]), m_shared.token)) {
            m_response = {};
            m_response.result(http::status::unauthorized);
            m_response.set(http::field::www_authenticate, "Bearer realm=\"media-gateway admin\"");
            return write("unauthorized\n", "text/plain; charset=utf-8", false);
        }
        const bool head = request.method() == http::verb::head;
        if (request.method() != http::verb::get && !head) {
            m_response = {};
            m_response.result(http::status::method_not_allowed);
            m_response.set(http::field::allow, "GET, HEAD");
            return write("method not allowed\n", "text/plain; charset=utf-8", false);
        }
        HttpService::Request asked{std::string(request.method_string()), std::string(request.target())};
        HttpService::Response answered;
        try {
            m_shared.handler(asked, answered);
        } catch (const std::exception&) {
            answered = HttpService::Response();
            answered.status = 500;
            answered.body = "internal error\n";
        }
        m_response = {};
        m_response.result(static_cast<unsigned>(answered.status));
        write(std::move(answered.body), answered.contentType, head);
    }

    void answer(int status, const char* text)
    {
        m_response = {};
        m_response.result(static_cast<unsigned>(status));
        write(text, "text/plain; charset=utf-8", false);
    }

    void write(std::string body, const std::string& contentType, bool headOnly)
    {
        m_response.version(11);
        m_response.set(http::field::content_type, contentType);
        m_response.content_length(body.size());
        m_response.keep_alive(m_keepAlive);
        if (!headOnly) {
            m_response.body() = std::move(body);
        }
        m_stream.expires_after(m_shared.limits.writeTimeout);
        http::async_write(m_stream, m_response, [self = shared_from_this()](beast::error_code error, size_t) {
            if (error || !self->m_keepAlive) {
                beast::error_code ignored;
                self->m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                self->m_stream.close();
                return;
            }
            self->read();
        });
    }

    beast::tcp_stream m_stream;
    Shared& m_shared;
    uint64_t m_id = 0;
    beast::flat_buffer m_buffer;
    std::optional<http::request_parser<http::string_body>> m_parser;
    http::response<http::string_body> m_response;
    unsigned m_served = 0;
    bool m_keepAlive = false;
};

uint64_t SessionTable::add(const std::shared_ptr<Session>& session)
{
    std::lock_guard<std::mutex> guard(m_lock);
    const uint64_t id = m_nextId++;
    m_sessions[id] = session;
    return id;
}

void SessionTable::remove(uint64_t id)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_sessions.erase(id);
}

size_t SessionTable::size()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_sessions.size();
}

std::shared_ptr<Session> SessionTable::takeOldest()
{
    std::lock_guard<std::mutex> guard(m_lock);
    while (!m_sessions.empty()) {
        std::shared_ptr<Session> session = m_sessions.begin()->second.lock();
        m_sessions.erase(m_sessions.begin());
        if (session) {
            return session;
        }
    }
    return nullptr;
}

}  // namespace

class HttpService::Impl {
public:
    Impl(const Limits& limits, Handler handler, Logger& log) : m_log(log)
    {
        m_shared.limits = limits;
        m_shared.handler = std::move(handler);
    }

    bool start(const ListenAddress& address, const std::string& token, std::string& error)
    {
        m_shared.token = token;
        beast::error_code failure;
        if (!openAcceptor(m_acceptor, address, failure)) {
            error = failure.message();
            return false;
        }
        m_port = m_acceptor.local_endpoint(failure).port();
        accept();
        for (size_t i = 0; i < std::max<size_t>(1, m_shared.limits.threads); ++i) {
            m_threads.emplace_back([this] { run(); });
        }
        return true;
    }

    void stop()
    {
        if (m_threads.empty()) {
            return;
        }
        // Handlers left in the queue are dropped with the context; their connections close then.
        m_context.stop();
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
        beast::error_code ignored;
        m_acceptor.close(ignored);
        m_port = 0;
    }

    int port() const { return m_port; }

private:
    void run()
    {
        for (;;) {
            try {
                m_context.run();
                return;
            } catch (const std::exception& failure) {
                // Out of memory in a handler: that connection is lost, the service goes on.
                m_log.logf(kLogError, "HTTP service: %s", failure.what());
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
                if (m_shared.sessions.size() >= m_shared.limits.maxConnections) {
                    if (auto oldest = m_shared.sessions.takeOldest()) {
                        oldest->close();  // many connections at once: the one held longest goes
                    }
                }
                std::make_shared<Session>(std::move(socket), m_shared)->start();
            } else if (error == net::error::no_descriptors || error == net::error::no_buffer_space) {
                // Out of descriptors: the waiting connection stays in the backlog; try again shortly.
                m_retry.expires_after(std::chrono::milliseconds(100));
                m_retry.async_wait([this](beast::error_code) { accept(); });
                return;
            }
            accept();
        });
    }

    Logger& m_log;
    Shared m_shared;
    net::io_context m_context;
    std::optional<net::executor_work_guard<net::io_context::executor_type>> m_work{m_context.get_executor()};
    net::strand<net::io_context::executor_type> m_acceptStrand{net::make_strand(m_context)};
    tcp::acceptor m_acceptor{m_acceptStrand};
    net::steady_timer m_retry{m_acceptStrand};
    std::vector<std::thread> m_threads;
    std::atomic<int> m_port{0};
};

HttpService::HttpService(const Limits& limits, Handler handler, Logger& log)
    : m_impl(new Impl(limits, std::move(handler), log))
{
}

HttpService::~HttpService()
{
    stop();
}

bool HttpService::start(const ListenAddress& address, const std::string& token, std::string& error)
{
    return m_impl->start(address, token, error);
}

void HttpService::stop()
{
    m_impl->stop();
}

int HttpService::port() const
{
    return m_impl->port();
}
