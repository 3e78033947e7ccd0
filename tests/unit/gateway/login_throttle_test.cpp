// Password guessing is slowed per address and per user, while the real user
// from another address still gets in.
#include <gtest/gtest.h>

#include "auth/LoginThrottle.h"

TEST(LoginThrottle, LocksAGuessingAddressForAWhileAndLogsOnce)
{
    int64_t now = 1000;
    LoginThrottle throttle([&] { return now; });
    int locks = 0;
    for (int i = 0; i < LoginThrottle::kMaxFailures + 5; ++i) {
        EXPECT_EQ(throttle.locked("192.0.2.1", "alice"), i >= LoginThrottle::kMaxFailures) << i;
        locks += throttle.failed("192.0.2.1", "alice").empty() ? 0 : 1;
    }
    EXPECT_EQ(locks, 1);
    EXPECT_TRUE(throttle.locked("192.0.2.1", "bob"));        // the address, whoever it names
    EXPECT_FALSE(throttle.locked("198.51.100.2", "alice"));  // the user, from an address that did not fail
    now += LoginThrottle::kLockSeconds;
    EXPECT_FALSE(throttle.locked("192.0.2.1", "alice"));
}

// Guesses spread over many addresses still lock the user, for those addresses.
TEST(LoginThrottle, LocksAUserGuessedFromManyAddresses)
{
    int64_t now = 1000;
    LoginThrottle throttle([&] { return now; });
    std::string locked;
    for (int i = 0; i < LoginThrottle::kMaxFailures; ++i) {
        locked = throttle.failed("10.0.0." + std::to_string(i), "alice");
    }
    EXPECT_EQ(locked, "user \"alice\"");
    EXPECT_TRUE(throttle.locked("10.0.0.3", "alice"));
    EXPECT_FALSE(throttle.locked("10.0.0.3", "bob"));
    EXPECT_FALSE(throttle.locked("10.0.1.1", "alice"));
    // Failures spread wider than the window never add up.
    LoginThrottle slow([&] { return now; });
    for (int i = 0; i < 3 * LoginThrottle::kMaxFailures; ++i) {
        now += LoginThrottle::kWindowSeconds / (LoginThrottle::kMaxFailures - 1) + 1;
        EXPECT_EQ(slow.failed("192.0.2.9", "carol"), "") << i;
    }
}

TEST(LoginThrottle, RemembersABoundedNumberOfGuessers)
{
    int64_t now = 1000;
    LoginThrottle throttle([&] { return now; });
    for (size_t i = 0; i < 2 * LoginThrottle::kMaxTracked; ++i) {
        throttle.failed("a" + std::to_string(i), "u" + std::to_string(i));
    }
    for (int i = 0; i < LoginThrottle::kMaxFailures; ++i) {
        throttle.failed("192.0.2.1", "alice");
    }
    EXPECT_TRUE(throttle.locked("192.0.2.1", "alice"));
}
