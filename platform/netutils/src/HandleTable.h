// Numbers handed to the owner for its connections.
//
// A handle stays valid until its owner releases it, even after the connection
// ended, so a number is never given out twice while it is known. Numbers grow
// and wrap around to 1, skipping those still in use, so that a stale handle
// the owner kept by mistake is unlikely to reach a new connection soon.
#ifndef NETUTILS_HANDLETABLE_H
#define NETUTILS_HANDLETABLE_H

#include <climits>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace netutils {

template <class T>
class HandleTable {
public:
    // lastHandle lets a test reach the wrap-around without two billion insertions.
    explicit HandleTable(int firstHandle = 1, int lastHandle = INT_MAX)
        : m_last(lastHandle > 0 ? lastHandle : INT_MAX),
          m_next(firstHandle > 0 && firstHandle <= m_last ? firstHandle : 1)
    {
    }
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    // Returns the new handle, or -1 when every positive number is taken.
    int insert(std::shared_ptr<T> item)
    {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        if (m_items.size() >= static_cast<size_t>(m_last)) {
            return -1;
        }
        for (;;) {
            const int candidate = m_next;
            m_next = (m_next == m_last) ? 1 : m_next + 1;
            if (m_items.emplace(candidate, item).second) {
                return candidate;
            }
        }
    }

    // Reply and SetParam look their connection up once per block: readers do not exclude each other.
    std::shared_ptr<T> find(int handle) const
    {
        std::shared_lock<std::shared_mutex> lock(m_mutex);
        auto it = m_items.find(handle);
        return it == m_items.end() ? nullptr : it->second;
    }

    std::shared_ptr<T> remove(int handle)
    {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        auto it = m_items.find(handle);
        if (it == m_items.end()) {
            return nullptr;
        }
        std::shared_ptr<T> item = std::move(it->second);
        m_items.erase(it);
        return item;
    }

    std::vector<std::shared_ptr<T>> removeAll()
    {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        std::vector<std::shared_ptr<T>> items;
        items.reserve(m_items.size());
        for (auto& entry : m_items) {
            items.push_back(std::move(entry.second));
        }
        m_items.clear();
        return items;
    }

    size_t size() const
    {
        std::shared_lock<std::shared_mutex> lock(m_mutex);
        return m_items.size();
    }

private:
    const int m_last;
    mutable std::shared_mutex m_mutex;  // guards m_items and m_next
    std::unordered_map<int, std::shared_ptr<T>> m_items;
    int m_next;
};

}  // namespace netutils

#endif
