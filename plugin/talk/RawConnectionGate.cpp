#include "talk/RawConnectionGate.h"

#include <errno.h>
#include <string.h>

#include <climits>
#include <vector>

#include "frame/ErrorCodes.h"
#include "frame/Log.h"
#include "transport/SocketHelpers.h"

namespace HttpWrapper {

namespace {

const ZRT_UINT64 kListenKey = ~0ULL;
const int kWaitBatch = 64;
// The threads' convention: look at the running flag at least this often.
const ZRT_UINT32 kMaxWaitMs = 100;
// A session past its deadline is asked to go again this often until it is gone.
const ZRT_UINT64 kExpireRetryMs = 1000;
// Out of descriptors or memory, accepting again at once would fail again.
const ZRT_UINT64 kAcceptRetryMs = 100;
// Connections accepted per turn, so that the ones held are looked at between the bursts of a flood.
const int kAcceptBurst = 16;
const ZRT_UINT64 kRefusalLogEveryMs = 5000;
const char kHeadEnd[] = "\r\n\r\n";

netutils::ConnectionBudget::Limits budgetLimits(const CRawConnectionGate::Limits& limits)
{
    netutils::ConnectionBudget::Limits budget;
    budget.maxConnections = static_cast<size_t>(limits.maxConnections);
    budget.maxPerAddress = static_cast<size_t>(limits.maxPerAddress);
    int maxFds = ZRT_GetMaxFds();
    if (limits.reserveFds > 0 && maxFds > 0) {
        budget.fdCeiling = maxFds - limits.reserveFds;
    }
    return budget;
}

bool isTransientAcceptError(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

CRawConnectionGate::CRawConnectionGate(const Limits& limits, std::function<void(int)> admit,
                                       std::function<void(int)> expire)
    : m_limits(limits), m_admit(std::move(admit)), m_expire(std::move(expire)), m_budget(budgetLimits(limits))
{
}

CRawConnectionGate::~CRawConnectionGate()
{
    for (auto& entry : m_held) {
        if (entry.second.waiting) {
            int socket = entry.first;
            CloseSocket(socket);
        }
    }
    if (m_poller != nullptr) {
        ZRT_Poller_Destroy(m_poller);
    }
}

bool CRawConnectionGate::serve(int listenSocket, const std::atomic<int>& running)
{
    m_poller = ZRT_Poller_Create();
    if (m_poller == nullptr || ZRT_Poller_Add(m_poller, listenSocket, kListenKey) != 0) {
        HPW_LOGE(HPW_ERR_ACCEPT, "Qumex talk listen socket cannot be watched, systemerr=%d", ZRT_GetSystemLastError());
        return false;
    }
    ZRT_UINT64 keys[kWaitBatch];
    // The listener is edge-triggered: what is left to accept after a burst, or for want of descriptors,
    // is accepted on the next turn or on a timer, as no new event may come for it.
    AcceptResult accepting = acceptSome(listenSocket);
    ZRT_UINT64 acceptRetryAt = 0;
    while (running != 0) {
        if (accepting == kAcceptShort) {
            acceptRetryAt = ZRT_GetTimeTick64() + kAcceptRetryMs;
        }
        ZRT_UINT32 wait = accepting == kAcceptMore ? 0 : waitMs();
        if (acceptRetryAt != 0 && wait > kAcceptRetryMs) {
            wait = kAcceptRetryMs;
        }
        int count = ZRT_Poller_Wait(m_poller, keys, kWaitBatch, wait);
        bool acceptNow = accepting == kAcceptMore || (acceptRetryAt != 0 && ZRT_GetTimeTick64() >= acceptRetryAt);
        for (int i = 0; i < count; ++i) {
            if (keys[i] == kListenKey) {
                acceptNow = true;
            } else {
                look(static_cast<int>(keys[i]));
            }
        }
        // After the connections' own news: a head that has arrived counts before newcomers make room.
        accepting = kAcceptDone;
        if (acceptNow) {
            acceptRetryAt = 0;
            accepting = acceptSome(listenSocket);
        }
        expireDeadlines();
    }
    return true;
}

CRawConnectionGate::AcceptResult CRawConnectionGate::acceptSome(int listenSocket)
{
    for (int accepted = 0; accepted < kAcceptBurst; ++accepted) {
        ZRT_ADDR_T peer;
        int socket = Accept(listenSocket, &peer, 0);
        if (socket == -1) {
            // None left, or the listener is closing (the running flag says so), or no descriptor is free.
            return isTransientAcceptError(ZRT_GetSystemLastError()) ? kAcceptShort : kAcceptDone;
        }
        bool refused = false;
        bool watched = false;
        {
            ZRT_Guard guard(m_lock);
            if (m_held.count(socket) != 0) {
                forgetLocked(socket);  // the number was closed and is reused: that entry is stale
            }
            netutils::ConnectionBudget::Decision decision = m_budget.decide(peer.sin_addr.s_addr, socket);
            if (!decision.admit) {
                refused = true;
            } else {
                if (decision.evict) {
                    // Only connections still at the door are evictable: their sockets are the gate's.
                    int victim = m_socketOf[decision.victim];
                    dropLocked(victim, m_held[victim]);
                }
                Held held;
                held.id = m_nextId++;
                held.deadline = m_limits.headTimeoutMs > 0 ? ZRT_GetTimeTick64() + m_limits.headTimeoutMs : 0;
                held.waiting = true;
                m_held[socket] = held;
                m_socketOf[held.id] = socket;
                m_budget.add(held.id, peer.sin_addr.s_addr);
                if (held.deadline != 0) {
                    m_deadlines.insert(std::make_pair(held.deadline, socket));
                }
                if (ZRT_Poller_Add(m_poller, socket, static_cast<ZRT_UINT64>(socket)) != 0) {
                    dropLocked(socket, m_held[socket]);
                } else {
                    watched = true;
                }
            }
        }
        if (refused) {
            CloseSocket(socket);
            logRefusal();
        } else if (watched) {
            // A client sends its head with its connection: seen now, it is no longer evictable by the
            // connections queued behind it, however many a flood has put there.
            look(socket);
        }
    }
    return kAcceptMore;
}

void CRawConnectionGate::look(int socket)
{
    int peeked = ZRT_Peek(socket, m_peek, static_cast<int>(sizeof m_peek));
    if (peeked < 0 && ZRT_GetSystemLastError() == EAGAIN) {
        return;
    }
    bool headHere = peeked > 0 && memmem(m_peek, static_cast<size_t>(peeked), kHeadEnd, sizeof kHeadEnd - 1) != nullptr;
    {
        ZRT_Guard guard(m_lock);
        auto found = m_held.find(socket);
        if (found == m_held.end() || !found->second.waiting) {
            return;  // evicted or expired meanwhile
        }
        if (!headHere) {
            // Closed or failed before its head, or more than one request of the channel may hold
            // without a head's end: the session would refuse it as well.
            if (peeked <= 0 || peeked > CHttpParser::kMaxRequestSize) {
                dropLocked(socket, found->second);
            }
            return;
        }
        found->second.waiting = false;
        m_budget.setEvictable(found->second.id, false);
        ZRT_Poller_Remove(m_poller, socket);
    }
    m_admit(socket);
}

void CRawConnectionGate::release(int socket)
{
    ZRT_Guard guard(m_lock);
    auto found = m_held.find(socket);
    if (found != m_held.end() && !found->second.waiting) {
        forgetLocked(socket);
    }
}

int CRawConnectionGate::heldCount()
{
    ZRT_Guard guard(m_lock);
    return static_cast<int>(m_held.size());
}

void CRawConnectionGate::dropLocked(int socket, Held& held)
{
    if (held.waiting) {
        ZRT_Poller_Remove(m_poller, socket);
        ZRT_CloseSocket(socket, 0);
    }
    forgetLocked(socket);
}

void CRawConnectionGate::forgetLocked(int socket)
{
    auto found = m_held.find(socket);
    if (found == m_held.end()) {
        return;
    }
    m_budget.remove(found->second.id);
    m_socketOf.erase(found->second.id);
    if (found->second.deadline != 0) {
        m_deadlines.erase(std::make_pair(found->second.deadline, socket));
    }
    m_held.erase(found);
}

void CRawConnectionGate::expireDeadlines()
{
    std::vector<int> sessions;
    {
        ZRT_Guard guard(m_lock);
        ZRT_UINT64 now = ZRT_GetTimeTick64();
        while (!m_deadlines.empty() && m_deadlines.begin()->first <= now) {
            const ZRT_UINT64 deadline = m_deadlines.begin()->first;
            const int socket = m_deadlines.begin()->second;
            m_deadlines.erase(m_deadlines.begin());
            auto found = m_held.find(socket);
            if (found == m_held.end() || found->second.deadline != deadline) {
                continue;  // the entry was forgotten, or its socket number is another connection's now
            }
            Held& held = found->second;
            if (held.waiting) {
                HPW_LOGD("Qumex talk connection closed: no request within %d ms, socket=%d", m_limits.headTimeoutMs,
                         socket);
                dropLocked(socket, held);
                continue;
            }
            held.deadline = now + kExpireRetryMs;
            m_deadlines.insert(std::make_pair(held.deadline, socket));
            sessions.push_back(socket);
        }
    }
    for (int socket : sessions) {
        m_expire(socket);
    }
}

ZRT_UINT32 CRawConnectionGate::waitMs()
{
    ZRT_Guard guard(m_lock);
    if (m_deadlines.empty()) {
        return kMaxWaitMs;
    }
    ZRT_UINT64 now = ZRT_GetTimeTick64();
    ZRT_UINT64 next = m_deadlines.begin()->first;
    return next <= now ? 0 : static_cast<ZRT_UINT32>(next - now < kMaxWaitMs ? next - now : kMaxWaitMs);
}

void CRawConnectionGate::logRefusal()
{
    ZRT_UINT64 now = ZRT_GetTimeTick64();
    ++m_refused;
    if (now - m_lastRefusalLog >= kRefusalLogEveryMs) {
        HPW_LOGW(HPW_ERR_ACCEPT, "Qumex talk connections refused at the bounds: %u (held %d)", m_refused, heldCount());
        m_refused = 0;
        m_lastRefusalLog = now;
    }
}

}  // namespace HttpWrapper
