// The server URL's opt-in parameters: a switch is on only for "1", a bound only for plain digits.
#include <gtest/gtest.h>

#include "frame/ServerOptions.h"

using HttpWrapper::CServerOptions;
using HttpWrapper::ServerParams;

TEST(ServerOptions, SwitchesAndBoundsAreReadStrictlyAndOffWhenAbsent)
{
    const CServerOptions none = CServerOptions::fromParams(ServerParams{{"httpPort", "8080"}});
    EXPECT_FALSE(none.strictSendTimeout || none.streamAbort || none.checkTalkBacklog);
    EXPECT_FALSE(none.boundsConnections());

    const CServerOptions set = CServerOptions::fromParams(ServerParams{{"headTimeout", "10000"},
                                                                       {"maxConnections", "2048"},
                                                                       {"maxConnectionsPerAddress", "512"},
                                                                       {"reserveFds", "256"},
                                                                       {"strictSendTimeout", "1"},
                                                                       {"streamAbort", "1"}});
    EXPECT_EQ(set.headTimeoutMs, 10000);
    EXPECT_EQ(set.maxConnections, 2048);
    EXPECT_EQ(set.maxConnectionsPerAddress, 512);
    EXPECT_EQ(set.reserveFds, 256);
    EXPECT_TRUE(set.strictSendTimeout && set.streamAbort && set.boundsConnections());

    for (const char* bad : {"-5", "10ms", "", "99999999999", " 7", "0x10"}) {
        EXPECT_EQ(CServerOptions::fromParams(ServerParams{{"maxConnections", bad}}).maxConnections, 0) << bad;
    }
    for (const char* notOne : {"true", "yes", "01", "2"}) {
        EXPECT_FALSE(CServerOptions::fromParams(ServerParams{{"strictSendTimeout", notOne}}).strictSendTimeout)
            << notOne;
    }
    EXPECT_TRUE(CServerOptions::fromParams(ServerParams{{"reserveFds", "1"}}).boundsConnections());
}
