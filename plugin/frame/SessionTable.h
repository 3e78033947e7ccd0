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
#include "frame/SessionJobs.h"

namespace HttpWrapper {

template <typename Key, typename Session>
class CSessionTable {
public:
    using Entry = std::shared_ptr<Session>;
    using Map = std::map<Key, Entry>;

    // The destroy jobs of an ageing pass have this command, and the key in this field.
    CSessionTable(int destroyCommand, Key tagAsyncReq::*keyField)
        : m_destroyCommand(destroyCommand), m_keyField(keyField)
    {
    }

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

    // One ageing pass: a session that `idle(key, session)` finds idle too long
    // gets a destroy job (again on every later pass, until it is gone); every
    // other one is aged by `age(session)`.
    template <typename Idle, typename Age>
    void agePass(Idle idle, Age age)
    {
        ZRT_Guard guard(m_mutex);
        for (auto& entry : m_sessions) {
            Session& session = *entry.second;
            if (idle(entry.first, session)) {
                tagAsyncReq job = SessionJob(m_destroyCommand, &session);
                job.*m_keyField = entry.first;
                singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&job);
            } else {
                age(session);
            }
        }
    }

private:
    static bool isMeant(const Session& session, ZRT_UINT64 serial) { return serial == 0 || session.serial() == serial; }

    const int m_destroyCommand;
    Key tagAsyncReq::*const m_keyField;
    Map m_sessions;
    ZRT_Mutex m_mutex{1};
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SESSIONTABLE_H
