#include "talk/TalkOwners.h"

TalkOwners::TalkOwners(std::function<int64_t()> now) : m_now(std::move(now))
{
}

void TalkOwners::dropStaleOpens(int64_t now)
{
    // An open the plug-in gave up on after the gateway accepted it never gets
    // its device side: it stops counting after a while.
    for (auto it = m_talks.begin(); it != m_talks.end();) {
        const bool stale = !it->second.running && now - it->second.openedAt > kOpeningSeconds;
        it = stale ? m_talks.erase(it) : std::next(it);
    }
}

TalkOwners::Open TalkOwners::beginOpen(const TalkKey& key, const TalkRequester& who, int maxPerUser)
{
    std::lock_guard<std::mutex> guard(m_lock);
    const int64_t now = m_now();
    dropStaleOpens(now);
    if (m_talks.count(key) != 0) {
        return Open::kTaken;
    }
    int held = 0;
    for (const auto& entry : m_talks) {
        held += entry.second.owner.user == who.user ? 1 : 0;
    }
    if (held >= maxPerUser) {
        return Open::kUserLimit;
    }
    Talk& talk = m_talks[key];
    talk.owner = who;
    talk.openedAt = now;
    return Open::kAccepted;
}

bool TalkOwners::opened(const TalkKey& key, TalkRequester& owner)
{
    std::lock_guard<std::mutex> guard(m_lock);
    dropStaleOpens(m_now());
    auto found = m_talks.find(key);
    if (found == m_talks.end() || found->second.running) {
        return false;
    }
    found->second.running = true;
    owner = found->second.owner;
    return true;
}

void TalkOwners::ended(const TalkKey& key)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_talks.erase(key);
}

bool TalkOwners::running(const TalkKey& key)
{
    std::lock_guard<std::mutex> guard(m_lock);
    auto found = m_talks.find(key);
    return found != m_talks.end() && found->second.running;
}

bool TalkOwners::mayUse(const TalkKey& key, const std::string& user)
{
    std::lock_guard<std::mutex> guard(m_lock);
    dropStaleOpens(m_now());
    auto found = m_talks.find(key);
    return found == m_talks.end() || found->second.owner.user == user;
}
