// How many connections the gateway's ports hold within the descriptors it may have, and who may read the
// admin endpoint.
#include <gtest/gtest.h>

#include "auth/BearerToken.h"
#include "download/DeliveryRate.h"
#include "config/DescriptorBudget.h"
#include "config/GatewayConfig.h"

TEST(DescriptorBudget, BoundsShrinkToALowLimitSoThatBothPortsFitBesideTheReserve)
{
    const GatewayConfig config;  // 2048 per port, 512 per address, 256 in reserve
    const int needed = 2 * 2048 + 256 + kTalkLinkDescriptors + kOwnDescriptors;
    const struct {
        int soft, hard, limit, perPort, perAddress, reserve;
    } cases[] = {
        {1024, 1024, 1024, 252, 252, 256},        // (1024 - 256 - 200 - 64) / 2
        {1024, 1 << 20, needed, 2048, 512, 256},  // the soft limit is raised as far as needed, not further
        {1 << 20, 1 << 20, 1 << 20, 2048, 512, 256},
        {512, 512, 512, 60, 60, 128},  // the reserve takes a quarter at most
        {256, 256, 256, 16, 16, 64},   // never fewer than 16 per port
    };
    for (const auto& c : cases) {
        const DescriptorBudget budget = planDescriptors(config, c.soft, c.hard);
        EXPECT_EQ(budget.limit, c.limit) << c.soft << "/" << c.hard;
        EXPECT_EQ(budget.maxConnections, c.perPort) << c.soft << "/" << c.hard;
        EXPECT_EQ(budget.maxConnectionsPerAddress, c.perAddress) << c.soft << "/" << c.hard;
        EXPECT_EQ(budget.reserveFds, c.reserve) << c.soft << "/" << c.hard;
        EXPECT_EQ(budget.note.empty(), c.perPort == 2048) << budget.note;
    }
}

TEST(BearerToken, OnlyTheExactTokenAfterTheSchemeIsAccepted)
{
    const std::string token = "Zm9vYmFyLXNlY3JldC0x.~_+/==";
    EXPECT_TRUE(isUsableBearerToken(token));
    EXPECT_TRUE(bearerAuthorizationMatches("Bearer " + token, token));
    EXPECT_TRUE(bearerAuthorizationMatches("bearer " + token, token));
    const std::string refused[] = {"",
                                   "Bearer",
                                   "Bearer  " + token,
                                   "Basic " + token,
                                   "Bearer " + token + "x",
                                   "Bearer " + token.substr(1),
                                   "Bearer" + token};
    for (const std::string& header : refused) {
        EXPECT_FALSE(bearerAuthorizationMatches(header, token)) << header;
    }
    EXPECT_FALSE(bearerAuthorizationMatches("Bearer ", ""));
    const std::string unusable[] = {"short", std::string(257, 'a'), std::string(20, '='), "0123456789abcdef\"",
                                    "0123456789 abcdef"};
    for (const std::string& bad : unusable) {
        EXPECT_FALSE(isUsableBearerToken(bad)) << bad;
    }
}

TEST(DeliveryRate, AWindowBelowTheMinimumEndsTheDownloadAndEachWindowStandsAlone)
{
    using std::chrono::seconds;
    DeliveryRate rate(8192, 30);
    const auto start = DeliveryRate::Clock::now();
    rate.start(start, 0);
    EXPECT_FALSE(rate.tooSlow(start + seconds(29), 1000)) << "judged before its window closed";
    EXPECT_FALSE(rate.tooSlow(start + seconds(30), 8192 * 30)) << "exactly the minimum";
    // A fast window does not pay for a slow one after it.
    EXPECT_TRUE(rate.tooSlow(start + seconds(61), 8192 * 30 + 8192 * 30));
    DeliveryRate off(0, 30);
    off.start(start, 0);
    EXPECT_FALSE(off.tooSlow(start + seconds(3600), 0));
    EXPECT_EQ(rate.slowPieceBytes(), 8192u);
    EXPECT_EQ(DeliveryRate(100, 30).slowPieceBytes(), 4096u);
}
