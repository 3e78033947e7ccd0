#include "netutils/ConnectionBudget.h"

namespace netutils {

ConnectionBudget::Decision ConnectionBudget::decide(uint32_t address, int fd) const
{
    Decision decision;
    auto use = m_addresses.find(address);
    if (m_limits.maxPerAddress != 0 && use != m_addresses.end() && use->second.connections >= m_limits.maxPerAddress) {
        // The address makes room itself: a busy address never pushes out another's connections.
        if (use->second.evictable.empty()) {
            return decision;
        }
        decision.evict = true;
        decision.victim = *use->second.evictable.begin();
        decision.admit = true;
        return decision;
    }
    // A descriptor past the ceiling stays only in the place of another: the count held does not grow.
    const bool full =
        (m_limits.maxConnections != 0 && m_connections.size() >= m_limits.maxConnections) || fd >= m_limits.fdCeiling;
    if (full) {
        if (m_evictable.empty()) {
            return decision;
        }
        decision.evict = true;
        decision.victim = *m_evictable.begin();
    }
    decision.admit = true;
    return decision;
}

void ConnectionBudget::add(uint64_t id, uint32_t address)
{
    if (!m_connections.emplace(id, Held{address, true}).second) {
        return;
    }
    AddressUse& use = m_addresses[address];
    ++use.connections;
    use.evictable.insert(id);
    m_evictable.insert(id);
}

void ConnectionBudget::setEvictable(uint64_t id, bool evictable)
{
    auto held = m_connections.find(id);
    if (held == m_connections.end() || held->second.evictable == evictable) {
        return;
    }
    held->second.evictable = evictable;
    AddressUse& use = m_addresses[held->second.address];
    if (evictable) {
        use.evictable.insert(id);
        m_evictable.insert(id);
    } else {
        use.evictable.erase(id);
        m_evictable.erase(id);
    }
}

void ConnectionBudget::remove(uint64_t id)
{
    auto held = m_connections.find(id);
    if (held == m_connections.end()) {
        return;
    }
    auto use = m_addresses.find(held->second.address);
    use->second.evictable.erase(id);
    if (--use->second.connections == 0) {
        m_addresses.erase(use);
    }
    m_evictable.erase(id);
    m_connections.erase(held);
}

}  // namespace netutils
