// A talk belongs to the user who opened it; each user holds a few at most.
#include <gtest/gtest.h>

#include "talk/TalkOwners.h"

namespace {
const TalkKey kOne(1, 8080), kTwo(2, 8080), kOneOtherPort(1, 9090);
}

TEST(TalkOwners, OnlyTheOpenerMayUseOrCloseItsTalk)
{
    int64_t now = 100;
    TalkOwners owners([&] { return now; });
    ASSERT_EQ(owners.beginOpen(kOne, TalkRequester{"10.0.0.1", "alice"}, 4), TalkOwners::Open::kAccepted);
    EXPECT_EQ(owners.beginOpen(kOne, TalkRequester{"", "bob"}, 4), TalkOwners::Open::kTaken);
    TalkRequester owner;
    ASSERT_TRUE(owners.opened(kOne, owner));
    EXPECT_EQ(owner.user, "alice");
    EXPECT_EQ(owner.client, "10.0.0.1");
    EXPECT_FALSE(owners.opened(kOne, owner)) << "one device side per open";
    EXPECT_TRUE(owners.mayUse(kOne, "alice"));
    EXPECT_FALSE(owners.mayUse(kOne, "bob"));
    EXPECT_TRUE(owners.mayUse(kTwo, "bob")) << "no talk there: the plug-in says so";
    EXPECT_TRUE(owners.mayUse(kOneOtherPort, "bob"));
    now += 3600;  // a running talk does not age here
    EXPECT_FALSE(owners.mayUse(kOne, "bob"));
    owners.ended(kOne);
    EXPECT_TRUE(owners.mayUse(kOne, "bob"));
    EXPECT_EQ(owners.beginOpen(kOne, TalkRequester{"", "bob"}, 4), TalkOwners::Open::kAccepted);
}

TEST(TalkOwners, AUserHoldsAtMostTheCapAndAnUnansweredOpenLapses)
{
    int64_t now = 100;
    TalkOwners owners([&] { return now; });
    TalkRequester owner;
    for (int channel = 1; channel <= 2; ++channel) {
        ASSERT_EQ(owners.beginOpen(TalkKey(channel, 80), TalkRequester{"", "alice"}, 2), TalkOwners::Open::kAccepted);
    }
    ASSERT_TRUE(owners.opened(TalkKey(1, 80), owner));
    EXPECT_EQ(owners.beginOpen(TalkKey(3, 80), TalkRequester{"", "alice"}, 2), TalkOwners::Open::kUserLimit);
    EXPECT_EQ(owners.beginOpen(TalkKey(3, 80), TalkRequester{"", "bob"}, 2), TalkOwners::Open::kAccepted);
    // The open on channel 2 never got its device side (the plug-in refused it after us).
    now += TalkOwners::kOpeningSeconds + 1;
    EXPECT_FALSE(owners.opened(TalkKey(2, 80), owner));
    EXPECT_EQ(owners.beginOpen(TalkKey(4, 80), TalkRequester{"", "alice"}, 2), TalkOwners::Open::kAccepted);
}
