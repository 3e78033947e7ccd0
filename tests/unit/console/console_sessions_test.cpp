// Sign-in, the session cookie and what the console reads from a browser's requests.
#include <gtest/gtest.h>

#include <map>

#include "console/ConsoleSessions.h"

namespace {

struct SessionsFixture : ::testing::Test {
    int64_t now = 1000;
    std::map<std::string, std::string> users{{"alice", "right"}};
    ConsoleSessions sessions{600,
                             [this](const std::string& user, std::string& password) {
                                 const auto found = users.find(user);
                                 if (found == users.end()) {
                                     return false;
                                 }
                                 password = found->second;
                                 return true;
                             },
                             [this] { return now; }};

    ConsoleSessions::SignIn signIn(const std::string& user, const std::string& password, std::string& token,
                                   const std::string& address = "127.0.0.1")
    {
        std::string locked;
        return sessions.signIn(address, user, password, token, locked);
    }
};

}  // namespace

TEST_F(SessionsFixture, TheRightPasswordGivesASessionAndNothingElseDoes)
{
    std::string token, user;
    EXPECT_EQ(signIn("alice", "wrong", token), ConsoleSessions::SignIn::kRefused);
    EXPECT_EQ(signIn("mallory", "right", token), ConsoleSessions::SignIn::kRefused);
    EXPECT_EQ(signIn("alice", "", token), ConsoleSessions::SignIn::kRefused);
    EXPECT_EQ(signIn("alice", "right", token), ConsoleSessions::SignIn::kAccepted);
    EXPECT_EQ(token.size(), 64u);
    EXPECT_TRUE(sessions.find(token, user));
    EXPECT_EQ(user, "alice");
    EXPECT_FALSE(sessions.find("", user));
    EXPECT_FALSE(sessions.find(token.substr(1), user));
    sessions.signOut(token);
    EXPECT_FALSE(sessions.find(token, user));
}

TEST_F(SessionsFixture, FailedSignInsAreThrottledLikeDigestFailures)
{
    std::string token, locked;
    for (int i = 0; i < LoginThrottle::kMaxFailures; ++i) {
        sessions.signIn("192.0.2.7", "alice", "guess", token, locked);
    }
    EXPECT_FALSE(locked.empty());
    // Locked: even the right password is not checked from that address until the lock runs out.
    EXPECT_EQ(signIn("alice", "right", token, "192.0.2.7"), ConsoleSessions::SignIn::kThrottled);
    EXPECT_EQ(signIn("alice", "right", token, "198.51.100.1"), ConsoleSessions::SignIn::kAccepted);
    now += LoginThrottle::kLockSeconds;
    EXPECT_EQ(signIn("alice", "right", token, "192.0.2.7"), ConsoleSessions::SignIn::kAccepted);
}

TEST_F(SessionsFixture, ASessionEndsWhenIdleTooLongAtItsLifetimeOrWithItsUser)
{
    std::string idle, busy, user;
    ASSERT_EQ(signIn("alice", "right", idle), ConsoleSessions::SignIn::kAccepted);
    ASSERT_EQ(signIn("alice", "right", busy), ConsoleSessions::SignIn::kAccepted);
    for (int i = 0; i < 3; ++i) {
        now += 500;  // the busy one is used within its idle time, the other is not
        EXPECT_TRUE(sessions.find(busy, user));
    }
    EXPECT_FALSE(sessions.find(idle, user));
    now += ConsoleSessions::kMaxLifetimeSeconds;
    EXPECT_FALSE(sessions.find(busy, user));

    ASSERT_EQ(signIn("alice", "right", busy), ConsoleSessions::SignIn::kAccepted);
    users.clear();  // a reload removed the user
    EXPECT_FALSE(sessions.find(busy, user));
}

TEST_F(SessionsFixture, SigningInAgainAndAgainKeepsTheTableBounded)
{
    std::string first, second, token, user;
    ASSERT_EQ(signIn("alice", "right", first), ConsoleSessions::SignIn::kAccepted);
    ASSERT_EQ(signIn("alice", "right", second), ConsoleSessions::SignIn::kAccepted);
    now += 1;
    EXPECT_TRUE(sessions.find(first, user));  // used last: kept when room is made
    for (size_t i = 0; i < ConsoleSessions::kMaxSessions; ++i) {
        now += 1;
        ASSERT_EQ(signIn("alice", "right", token), ConsoleSessions::SignIn::kAccepted);
    }
    EXPECT_EQ(sessions.size(), ConsoleSessions::kMaxSessions);
    EXPECT_FALSE(sessions.find(second, user));
}

TEST(SessionCookie, IsHttpOnlyAndStrictAndSecureOverTls)
{
    EXPECT_EQ(sessionCookie("abc", 1800, false),
              "console_session=abc; Path=/; Max-Age=1800; HttpOnly; SameSite=Strict");
    EXPECT_EQ(sessionCookie("abc", 1800, true),
              "console_session=abc; Path=/; Max-Age=1800; HttpOnly; SameSite=Strict; Secure");
    EXPECT_EQ(clearedSessionCookie(false), "console_session=; Path=/; Max-Age=0; HttpOnly; SameSite=Strict");
}

TEST(SessionCookie, IsFoundAmongOthersByItsExactName)
{
    EXPECT_EQ(cookieValue("console_session=abc", kSessionCookieName), "abc");
    EXPECT_EQ(cookieValue("a=1; console_session=abc; b=2", kSessionCookieName), "abc");
    EXPECT_EQ(cookieValue("xconsole_session=abc; console_sessionx=def", kSessionCookieName), "");
    EXPECT_EQ(cookieValue("", kSessionCookieName), "");
    EXPECT_EQ(cookieValue(";;console_session", kSessionCookieName), "");
    EXPECT_NE(newSessionToken(), newSessionToken());
}

TEST(ConsoleRequests, OriginMustNameThisConsoleWithItsScheme)
{
    EXPECT_TRUE(originMatches("http://127.0.0.1:8090", "127.0.0.1:8090", false));
    EXPECT_TRUE(originMatches("https://console.example:8443", "console.example:8443", true));
    EXPECT_FALSE(originMatches("http://console.example:8443", "console.example:8443", true));
    EXPECT_FALSE(originMatches("http://evil.example", "127.0.0.1:8090", false));
    EXPECT_FALSE(originMatches("null", "127.0.0.1:8090", false));
    EXPECT_FALSE(originMatches("", "127.0.0.1:8090", false));
    EXPECT_FALSE(originMatches("http://", "", false));
}

TEST(ConsoleRequests, FormFieldsAreDecoded)
{
    const std::string body = "user=al%69ce&password=a+b%26c%3D&empty=&user=second";
    EXPECT_EQ(formField(body, "user"), "alice");  // the first of a repeated field
    EXPECT_EQ(formField(body, "password"), "a b&c=");
    EXPECT_EQ(formField(body, "empty"), "");
    EXPECT_EQ(formField(body, "missing"), "");
    EXPECT_EQ(formField("user=%4", "user"), "");  // a broken escape
    EXPECT_EQ(formField("user=%zz", "user"), "");
    EXPECT_EQ(formField("us%65r=x", "user"), "x");  // names are decoded too
    EXPECT_EQ(formField("", "user"), "");
}
