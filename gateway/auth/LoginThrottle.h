// Slows down password guessing. Failed Digest checks (a wrong password or an
// unknown user) are counted per client address and per user name within a
// window; past a few, that address, or that user from an address that failed
// too, is answered 401 without its credentials being checked until the lock
// runs out. The real user from another address still gets in: a user's lock
// holds only for addresses that failed for it.
//
// The client address is the one a proxy forwards (the gateway sees no other);
// direct clients share the empty one. Both tables are bounded: past their size
// the oldest entries go, which at worst lets an old guesser start afresh.
#ifndef GATEWAY_LOGIN_THROTTLE_H
#define GATEWAY_LOGIN_THROTTLE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

class LoginThrottle {
public:
    static constexpr int kMaxFailures = 10;  // within the window, then locked
    static constexpr int64_t kWindowSeconds = 60;
    static constexpr int64_t kLockSeconds = 60;
    static constexpr size_t kMaxTracked = 4096;  // addresses, and users, remembered at once

    // now: seconds on a steady clock.
    explicit LoginThrottle(std::function<int64_t()> now);

    // True when a request from address for user is to be refused unchecked.
    bool locked(const std::string& address, const std::string& user);

    // Counts a failed check; returns what it locked now ("address 10.0.0.7",
    // "user \"alice\"", or empty), for one log line per lock.
    std::string failed(const std::string& address, const std::string& user);

private:
    struct Failures {
        int64_t windowStart = 0;
        int count = 0;
        int64_t lockedUntil = 0;
        std::set<std::string> addresses;  // for a user: the addresses that failed for it (bounded)
    };
    // Counts one failure in table; true when that starts a lock.
    bool count(std::map<std::string, Failures>& table, const std::string& key, const std::string& address, int64_t now);
    static void bound(std::map<std::string, Failures>& table, int64_t now);

    std::function<int64_t()> m_now;
    std::mutex m_lock;  // guards both tables
    std::map<std::string, Failures> m_addresses;
    std::map<std::string, Failures> m_users;
};

#endif  // GATEWAY_LOGIN_THROTTLE_H
