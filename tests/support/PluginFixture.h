// Starts the plug-in's server in-process, as CreateServer does, in front of the
// fake gateway, on an ephemeral loopback port; stops it after the test.
#ifndef TESTS_SUPPORT_PLUGINFIXTURE_H
#define TESTS_SUPPORT_PLUGINFIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <string>

#include <HttpProtocolWrapper.h>

#include "FakeGateway.h"
#include "RawHttpClient.h"

class TestUtilitySink : public IProtocolWrapperUtilitySink {
public:
    const char* GetGatewayName() override { return "test-gateway"; }
    int GetConfigValue(const std::string& key, std::string& value) override;
    int SetConfigValue(const std::string& key, const std::string& value) override;
    int GetLogLevel() override { return 2; }
    void OutputLog(int, const char*, const char*) override {}

    std::map<std::string, std::string> config;
};

class PluginFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Waits until every session is gone and the download count is back to 0.
    bool waitIdle(int timeoutMs = 10000);

    // Authorization header line with all four Digest fields the plug-in tests.
    static std::string digestHeader(const std::string& user = "admin", const std::string& uri = "/");

    static const char kDevIndex[];  // 36 characters
    std::string jsonDownloadTarget() const;
    static std::string jsonDownloadBody(const std::string& query);
    static std::string xmlDownloadBody(const std::string& uri);

    TestUtilitySink utilitySink;
    FakeFilterChain filter;
    FakeServerSink sink;
    PROTOCOL_WRAPPER::IServer* server = nullptr;
    int port = 0;
};

#endif  // TESTS_SUPPORT_PLUGINFIXTURE_H
