// A raw-socket HTTP client for tests that check exact framing: it sends bytes
// as given and returns every byte the server wrote until it closed.
#ifndef TESTS_SUPPORT_RAWHTTPCLIENT_H
#define TESTS_SUPPORT_RAWHTTPCLIENT_H

#include <map>
#include <string>

#include "TestClient.h"

struct RawResponse {
    bool complete = false;  // the server closed, or a chunked body ended
    std::string raw;        // every byte received
    int status = 0;
    std::string statusLine;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;                            // as sent (chunked bodies still framed)

    // The body with the chunked transfer coding removed; false when malformed.
    bool dechunk(std::string& out) const;
};

class RawHttpClient {
public:
    explicit RawHttpClient(int port) : m_port(port) {}

    bool connect() { return m_client.close(), m_client.connectTo(m_port); }
    bool sendAll(const std::string& bytes) { return m_client.send(bytes); }
    // Reads until the server closes, a chunked body ends, or timeoutMs pass
    // without a byte.
    RawResponse readResponse(int timeoutMs = 5000);
    // Reads about `bytes` bytes (or until timeout) and returns them.
    std::string readSome(size_t bytes, int timeoutMs = 5000) { return m_client.receiveAll(timeoutMs, bytes); }
    // Sends a request and reads the whole response.
    RawResponse exchange(const std::string& request, int timeoutMs = 5000);
    void close() { m_client.close(); }

    // A request with Content-Length for the body.
    static std::string request(const std::string& method, const std::string& target, const std::string& body,
                               const std::string& extraHeaders = "");
    static RawResponse parse(const std::string& raw, bool complete);

private:
    int m_port;
    nettest::TestClient m_client;
};

#endif  // TESTS_SUPPORT_RAWHTTPCLIENT_H
