#include <gtest/gtest.h>

#include "frame/HttpServerWrapper.h"

using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::ServerParams;

TEST(ServerUrl, AuthorityAndQueryFillTheParameterMapOnlyTheFirstParseStoresThePortAndAPathIsRefused)
{
    CHttpServerWrapper server;
    std::string scheme;
    ServerParams params;
    EXPECT_FALSE(server.parseServerUrl("http://0.0.0.0:8080/?work_thread=4", scheme, params));
    EXPECT_FALSE(server.parseServerUrl("no scheme here", scheme, params));
    ASSERT_TRUE(server.parseServerUrl("http://0.0.0.0:8080?work_thread=4&debug&a=1&a=2&httpPort=81", scheme, params));
    EXPECT_EQ(scheme, "http");
    EXPECT_EQ(server.getHttpPort(), 8080);
    // A piece without "=" maps to itself; a later duplicate wins, and a query port overrides the map alone.
    EXPECT_EQ(params, (ServerParams{{"httpPort", "81"}, {"work_thread", "4"}, {"debug", "debug"}, {"a", "2"}}));

    // A later parse neither changes the stored port nor enters "httpPort".
    ServerParams second;
    ASSERT_TRUE(server.parseServerUrl("http://127.0.0.1:90", scheme, second));
    EXPECT_EQ(server.getHttpPort(), 8080);
    EXPECT_EQ(second.count("httpPort"), 0u);
}
