// A raw-socket HTTP client for tests that check exact framing: it sends bytes
// as given and returns every byte the server wrote.
#ifndef TESTS_SUPPORT_RAWHTTPCLIENT_H
#define TESTS_SUPPORT_RAWHTTPCLIENT_H

#include <string>

#include "TestClient.h"

struct RawResponse {
    bool complete = false;  // the server closed, or a chunked body ended
    std::string raw;        // every byte received
    int status = 0;
    std::string body;  // as sent (chunked bodies still framed)

    // The value of a header of the head (name in lower case), "" when absent.
    std::string header(const std::string& name) const;
};

class RawHttpClient : public nettest::TestClient {
public:
    explicit RawHttpClient(int port) : m_port(port) {}

    // Sends the request on a new connection.
    bool start(const std::string& request) { return close(), connectTo(m_port) && send(request); }
    // Sends the request and reads until the server closes, a chunked body
    // ends, or timeoutMs pass without a byte.
    RawResponse exchange(const std::string& request, int timeoutMs = 5000);

private:
    int m_port;
};

#endif  // TESTS_SUPPORT_RAWHTTPCLIENT_H
