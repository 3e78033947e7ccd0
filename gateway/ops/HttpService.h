// A small HTTP/1.1 server for the gateway's own endpoints (the admin endpoint,
// and any later listener of the gateway's, which reuses it with a handler of
// its own), on Boost.Beast over one asio io_context run by a fixed number of
// threads. It holds nothing for a client past its bounds: every request must
// be read whole within the read time-out (a new deadline per request, so a
// client dribbling bytes or idling between requests is closed), a connection
// serves a bounded number of requests, heads and bodies are bounded in size,
// and past maxConnections the oldest connection makes room for the new one.
// With a token, every request must carry "Authorization: Bearer <token>".
//
// The handler runs on one of the service's threads and must be quick: it
// blocks that thread (and so at most 1/threads of the service) while it runs.
#ifndef GATEWAY_HTTP_SERVICE_H
#define GATEWAY_HTTP_SERVICE_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "base/ListenAddress.h"

class Logger;

class HttpService {
public:
    struct Limits {
        size_t threads = 2;
        size_t maxConnections = 128;
        std::chrono::milliseconds readTimeout{5000};    // for each request, from the end of the last reply
        std::chrono::milliseconds writeTimeout{10000};  // for each reply
        unsigned maxRequestsPerConnection = 100;
        size_t maxHeadBytes = 8 * 1024;
        size_t maxBodyBytes = 8 * 1024;
    };
    struct Request {
        std::string method;  // as sent, upper case for the standard ones
        std::string target;  // path and query
    };
    struct Response {
        int status = 200;
        std::string contentType = "text/plain; charset=utf-8";
        std::string body;
    };
    using Handler = std::function<void(const Request&, Response&)>;

    HttpService(const Limits& limits, Handler handler, Logger& log);
    ~HttpService();
    HttpService(const HttpService&) = delete;
    HttpService& operator=(const HttpService&) = delete;

    // Binds (SO_REUSEADDR only: a port held by another process is refused, not shared) and starts the
    // threads; false with a message naming the address and the reason. token: "" for none.
    bool start(const ListenAddress& address, const std::string& token, std::string& error);
    // Closes the listener and every connection, and joins the threads. Idempotent.
    void stop();
    // The port bound (useful with port 0 in tests); 0 when not listening.
    int port() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

#endif  // GATEWAY_HTTP_SERVICE_H
