#include "auth/LoginThrottle.h"

#include <algorithm>
#include <vector>

LoginThrottle::LoginThrottle(std::function<int64_t()> now) : m_now(std::move(now))
{
}

bool LoginThrottle::locked(const std::string& address, const std::string& user)
{
    std::lock_guard<std::mutex> guard(m_lock);
    const int64_t now = m_now();
    auto byAddress = m_addresses.find(address);
    if (byAddress != m_addresses.end() && byAddress->second.lockedUntil > now) {
        return true;
    }
    auto byUser = m_users.find(user);
    return byUser != m_users.end() && byUser->second.lockedUntil > now && byUser->second.addresses.count(address) != 0;
}

std::string LoginThrottle::failed(const std::string& address, const std::string& user)
{
    std::lock_guard<std::mutex> guard(m_lock);
    const int64_t now = m_now();
    const bool addressLocked = count(m_addresses, address, address, now);
    const bool userLocked = count(m_users, user, address, now);
    if (addressLocked) {
        return "address \"" + address + "\"";
    }
    return userLocked ? "user \"" + user + "\"" : std::string();
}

bool LoginThrottle::count(std::map<std::string, Failures>& table, const std::string& key, const std::string& address,
                          int64_t now)
{
    if (table.count(key) == 0 && table.size() >= kMaxTracked) {
        bound(table, now);
    }
    Failures& failures = table[key];
    if (now - failures.windowStart >= kWindowSeconds) {
        failures.windowStart = now;
        failures.count = 0;
        failures.addresses.clear();
    }
    ++failures.count;
    if (failures.addresses.size() < kMaxTracked) {
        failures.addresses.insert(address);
    }
    if (failures.count >= kMaxFailures && failures.lockedUntil <= now) {
        failures.lockedUntil = now + kLockSeconds;
        return true;
    }
    return false;
}

void LoginThrottle::bound(std::map<std::string, Failures>& table, int64_t now)
{
    for (auto it = table.begin(); it != table.end();) {
        const bool stale = now - it->second.windowStart >= kWindowSeconds && it->second.lockedUntil <= now;
        it = stale ? table.erase(it) : std::next(it);
    }
    if (table.size() < kMaxTracked) {
        return;
    }
    // Still full of fresh entries (a guesser naming ever new addresses or
    // users): the oldest quarter goes at once, so the cost stays small per failure.
    std::vector<int64_t> starts;
    starts.reserve(table.size());
    for (const auto& entry : table) {
        starts.push_back(entry.second.windowStart);
    }
    std::nth_element(starts.begin(), starts.begin() + starts.size() / 4, starts.end());
    const int64_t cut = starts[starts.size() / 4];
    for (auto it = table.begin(); it != table.end();) {
        it = it->second.windowStart <= cut ? table.erase(it) : std::next(it);
    }
}
