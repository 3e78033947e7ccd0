// Which connections a listener holds when it reaches one of its bounds: a
// number in total, a number per client address, and a descriptor ceiling that
// keeps the process's last descriptors for its files and its other ports.
//
// A connection that has not delivered its request (or has had its reply and
// only lingers) may make room for a new one, the oldest first: a client
// holding many idle or slow connections cannot keep a new client out, since
// the new one sends its request at once and stops being evictable. Connections
// whose request the owner serves are never evicted; once every held
// connection is one, new connections are refused.
//
// No socket here: the listener's I/O thread asks, and the unit tests too.
#ifndef NETUTILS_CONNECTIONBUDGET_H
#define NETUTILS_CONNECTIONBUDGET_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <set>
#include <unordered_map>

namespace netutils {

class ConnectionBudget {
public:
    struct Limits {
        size_t maxConnections = 0;  // 0: no bound
        size_t maxPerAddress = 0;   // 0: no bound
        int fdCeiling = INT_MAX;    // a descriptor numbered at or above it is over the reserve
    };
    struct Decision {
        bool admit = false;
        bool evict = false;  // admit once `victim` is gone
        uint64_t victim = 0;
    };

    explicit ConnectionBudget(const Limits& limits) : m_limits(limits) {}

    // For a new connection from `address` on descriptor `fd`. Ids must grow with the
    // order of arrival: the smallest evictable id is the oldest.
    Decision decide(uint32_t address, int fd) const;
    void add(uint64_t id, uint32_t address);  // evictable until it delivers its request
    void setEvictable(uint64_t id, bool evictable);
    void remove(uint64_t id);

    size_t size() const { return m_connections.size(); }
    size_t addressCount() const { return m_addresses.size(); }

private:
    struct Held {
        uint32_t address;
        bool evictable;
    };
    struct AddressUse {
        size_t connections = 0;
        std::set<uint64_t> evictable;
    };

    const Limits m_limits;
    std::unordered_map<uint64_t, Held> m_connections;
    std::unordered_map<uint32_t, AddressUse> m_addresses;
    std::set<uint64_t> m_evictable;
};

}  // namespace netutils

#endif
