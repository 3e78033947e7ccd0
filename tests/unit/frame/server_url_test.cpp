#include <gtest/gtest.h>

#include "frame/HttpServerWrapper.h"

using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::ServerParams;

TEST(ServerUrl, AuthorityAndQueryFillTheParameterMap)
{
    CHttpServerWrapper server;
    std::string scheme;
    ServerParams params;
    ASSERT_TRUE(server.parseServerUrl("http://0.0.0.0:8080?work_thread=4&sendTimeout=3000", scheme, params));
    EXPECT_EQ(scheme, "http");
    EXPECT_EQ(server.getHttpPort(), 8080);
    EXPECT_EQ(params, (ServerParams{{"httpPort", "8080"}, {"sendTimeout", "3000"}, {"work_thread", "4"}}));
}

TEST(ServerUrl, APathIsRefused)
{
    CHttpServerWrapper server;
    std::string scheme;
    ServerParams params;
    EXPECT_FALSE(server.parseServerUrl("http://0.0.0.0:8080/?work_thread=4", scheme, params));
    EXPECT_FALSE(server.parseServerUrl("no scheme here", scheme, params));
}

TEST(ServerUrl, QueryPortOverridesTheMapButNotTheStoredPort)
{
    CHttpServerWrapper server;
    std::string scheme;
    ServerParams params;
    ASSERT_TRUE(server.parseServerUrl("http://127.0.0.1:80?httpPort=81&debug&a=1&a=2", scheme, params));
    EXPECT_EQ(server.getHttpPort(), 80);
    EXPECT_EQ(params["httpPort"], "81");
    EXPECT_EQ(params["debug"], "debug");  // a piece without "=" maps to itself
    EXPECT_EQ(params["a"], "2");          // a later duplicate wins

    // The authority's port is taken by the first successful parse only: a later
    // parse neither changes the stored port nor enters "httpPort".
    ServerParams second;
    ASSERT_TRUE(server.parseServerUrl("http://127.0.0.1:90", scheme, second));
    EXPECT_EQ(server.getHttpPort(), 80);
    EXPECT_EQ(second.count("httpPort"), 0u);
}

TEST(ServerUrl, IntParametersReadMissingKeysAsZero)
{
    ServerParams params{{"work_thread", "65536"}, {"sendTimeout", "70000"}};
    EXPECT_EQ(CHttpServerWrapper::getIntParam(params, "work_thread") & 0xFFFF, 0);  // falls back to 20
    EXPECT_EQ(CHttpServerWrapper::getIntParam(params, "sendTimeout") & 0xFFFF, 4464);
    EXPECT_EQ(CHttpServerWrapper::getIntParam(params, "absent"), 0);
    EXPECT_EQ(params.count("absent"), 1u);  // the lookup inserts
}
