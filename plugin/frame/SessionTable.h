// The table of live sessions that a manager keeps by key (the connection
// handle, the raw socket, the talk URL), under a mutex of its own.
//
// Lock order: the table's mutex may be held while a session's own lock is taken
// and while a job is pushed onto the request queue, never the reverse; a
// session is finished only after it has left the table, outside the mutex.
#ifndef HTTPWRAPPER_FRAME_SESSIONTABLE_H
#define HTTPWRAPPER_FRAME_SESSIONTABLE_H

#include <map>
#include <memory>

#include <zrt/zrt.h>

#include "frame/AsyncRequest.h"
#include "frame/HttpServerWrapper.h"

namespace HttpWrapper {

template <typename Key, typename Session>
class CSessionTable {
public:
    using Entry = std::shared_ptr<Session>;
    using Map = std::map<Key, Entry>;

    // False when a session is registered under the key already (the table is unchanged).
    bool add(const Key& key, Entry session)
    {
        ZRT_Guard guard(m_mutex);
        return m_sessions.emplace(key, std::move(session)).second;
    }

    Entry get(const Key& key)
    {
        ZRT_Guard guard(m_mutex);
        auto found = m_sessions.find(key);
        return found == m_sessions.end() ? Entry() : found->second;
    }

    Entry remove(const Key& key) { return take(key, 0); }

    // The session under the key when it is the one a job was made for: its
    // serial, or any with 0. Keys are reused (a socket once closed, a talk's
    // channel), and so are addresses, so only the serial tells them apart.
    Entry find(const Key& key, ZRT_UINT64 serial)
    {
        ZRT_Guard guard(m_mutex);
        auto found = m_sessions.find(key);
        return found == m_sessions.end() || !isMeant(*found->second, serial) ? Entry() : found->second;
    }

    // As find, and the session leaves the table.
    Entry take(const Key& key, ZRT_UINT64 serial)
    {
        ZRT_Guard guard(m_mutex);
        auto found = m_sessions.find(key);
        if (found == m_sessions.end() || !isMeant(*found->second, serial)) {
            return Entry();
        }
        Entry session = std::move(found->second);
        m_sessions.erase(found);
        return session;
    }

    size_t size()
    {
        ZRT_Guard guard(m_mutex);
        return m_sessions.size();
    }

    // Empties the table and returns what it held, to be finished outside the mutex.
    Map takeAll()
    {
        Map sessions;
        ZRT_Guard guard(m_mutex);
        sessions.swap(m_sessions);
        return sessions;
    }

    // One ageing pass: a session that `idle` finds idle too long gets the job
    // `destroyJob(key, session)` makes (again on every later pass, until it is
    // gone); every other one is aged by `age`.
    template <typename Idle, typename Age, typename DestroyJob>
    void agePass(Idle idle, Age age, DestroyJob destroyJob)
    {
        ZRT_Guard guard(m_mutex);
        for (auto& entry : m_sessions) {
            Session& session = *entry.second;
            if (idle(session)) {
                tagAsyncReq job = destroyJob(entry.first, session);
                singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&job);
            } else {
                age(session);
            }
        }
    }

private:
    static bool isMeant(const Session& session, ZRT_UINT64 serial) { return serial == 0 || session.serial() == serial; }

    Map m_sessions;
    ZRT_Mutex m_mutex{1};
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SESSIONTABLE_H
