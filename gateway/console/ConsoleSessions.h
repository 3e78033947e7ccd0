// Who is signed in to the console. A sign-in checks a gateway user's password
// (failures throttled like Digest failures, per address and per user) and
// gives the browser a random session token in a cookie; the token is good
// until the browser is idle for the idle time, for kMaxLifetimeSeconds at
// most, or until it signs out. At most kMaxSessions live at once: past it the
// session used longest ago goes, so that nobody fills the table by signing in.
#ifndef GATEWAY_CONSOLE_SESSIONS_H
#define GATEWAY_CONSOLE_SESSIONS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "auth/LoginThrottle.h"

constexpr const char* kSessionCookieName = "console_session";

class ConsoleSessions {
public:
    static constexpr size_t kMaxSessions = 256;
    static constexpr int64_t kMaxLifetimeSeconds = 12 * 3600;

    // passwordOf: the current password of a user, false for an unknown one.
    // now: seconds on a steady clock.
    using PasswordLookup = std::function<bool(const std::string& user, std::string& password)>;
    ConsoleSessions(int64_t idleSeconds, PasswordLookup passwordOf, std::function<int64_t()> now);

    enum class SignIn { kAccepted, kRefused, kThrottled };
    // On kAccepted, token is the new session's. locked: what a failure locked, for the log.
    SignIn signIn(const std::string& address, const std::string& user, const std::string& password, std::string& token,
                  std::string& locked);

    // The user of a live session (its idle time starts again); false for an unknown or expired token.
    bool find(const std::string& token, std::string& user);
    void signOut(const std::string& token);
    // Sessions of users who are no longer known (after a reload) end too.
    size_t size();
    int64_t idleSeconds() const { return m_idleSeconds; }

private:
    struct Session {
        std::string user;
        int64_t createdAt = 0;
        int64_t lastUsed = 0;
    };
    void dropExpired(int64_t now);

    int64_t m_idleSeconds;
    PasswordLookup m_passwordOf;
    std::function<int64_t()> m_now;
    LoginThrottle m_throttle;
    std::mutex m_lock;  // guards m_sessions
    std::map<std::string, Session> m_sessions;
};

// 32 random bytes in hex, from the system's generator.
std::string newSessionToken();

// The Set-Cookie value that holds token; secure adds "Secure" (the console over TLS).
std::string sessionCookie(const std::string& token, int64_t maxAgeSeconds, bool secure);
// The Set-Cookie value that makes the browser forget it.
std::string clearedSessionCookie(bool secure);
// The value of the cookie called name in a Cookie header; "" when absent.
std::string cookieValue(const std::string& cookieHeader, const std::string& name);

// True when an Origin header names this console: scheme (https with TLS) and
// the host:port the browser sent in Host. A request without Origin is not from
// a page of the console.
bool originMatches(const std::string& origin, const std::string& host, bool tls);

// The value of field in an application/x-www-form-urlencoded body, decoded; "" when absent or malformed.
std::string formField(const std::string& body, const std::string& field);

#endif  // GATEWAY_CONSOLE_SESSIONS_H
