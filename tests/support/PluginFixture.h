// Starts the plug-in's server in-process, as CreateServer does, in front of the
// fake gateway, on an ephemeral loopback port; stops it after the test and
// checks that no stream, socket or thread outlived it.
#ifndef TESTS_SUPPORT_PLUGINFIXTURE_H
#define TESTS_SUPPORT_PLUGINFIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "FakeGateway.h"
#include "TestClient.h"

class PluginFixture : public ::testing::Test {
protected:
    PluginFixture();
    void SetUp() override;
    void TearDown() override;

    // Waits until every session is gone and the download count is back to 0.
    bool waitIdle();

    // Authorization header line with all four Digest fields the plug-in tests.
    static std::string digestHeader()
    {
        return "Authorization: Digest username=\"admin\", realm=\"test-realm\", nonce=\"6e6f6e6365\", uri=\"/\", "
               "response=\"0123456789abcdef0123456789abcdef\", qop=auth, nc=00000001, cnonce=\"c\"\r\n";
    }
    // A request as clients send it: Host with the port, Content-Length always.
    std::string request(const std::string& method, const std::string& target, const std::string& body = "",
                        const std::string& headers = digestHeader()) const
    {
        return method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n" + headers +
               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    RawResponse exchange(const std::string& request, int timeoutMs = 5000)
    {
        return RawHttpClient(port).exchange(request, timeoutMs);
    }

    static const char kDevIndex[];  // 36 characters
    static std::string jsonTarget()
    {
        return std::string("/QUMEX/ContentMgmt/download?format=json&devIndex=") + kDevIndex;
    }
    std::string jsonDownload(const std::string& query, const std::string& headers = "") const;
    std::string xmlDownload(const std::string& uri) const;

    // The server URL's parameters; a fixture may add its own before SetUp.
    std::string serverParams = "recvTimeout=5000&work_thread=4";
    TestUtilitySink utilitySink;
    FakeFilterChain filter;
    FakeServerSink sink;
    PROTOCOL_WRAPPER::IServer* server = nullptr;
    int port = 0;

private:
    int m_descriptorsBefore;
    int m_threadsBefore;
};

#endif  // TESTS_SUPPORT_PLUGINFIXTURE_H
