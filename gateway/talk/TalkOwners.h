// Who each talk belongs to. The plug-in keys a talk by its channel and the
// HTTP port its open request named (in Host); the gateway keys it the same
// way. An open that the gateway accepts waits, for a few seconds at most,
// for the device side the plug-in then opens (a DESCRIBE without credentials,
// see TalkDevices.h); that talk belongs to the user who opened it, and while
// it runs only that user may link audio to it or close it. Each user may hold
// a few talks at once, so that nobody takes every channel.
#ifndef GATEWAY_TALK_OWNERS_H
#define GATEWAY_TALK_OWNERS_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "base/SteadyClock.h"

// A talk as the plug-in keys it: the channel and the HTTP port of its Host.
using TalkKey = std::pair<int, int>;

struct TalkRequester {
    std::string client;
    std::string user;
};

class TalkOwners {
public:
    // An accepted open waits this long for its device side.
    static constexpr int64_t kOpeningSeconds = 10;

    // now: seconds on a steady clock (by default, the process's).
    explicit TalkOwners(std::function<int64_t()> now = steadySeconds);

    enum class Open { kAccepted, kTaken, kUserLimit };
    // An open from who: refused while the key has a talk or an open waiting,
    // or while who.user holds maxPerUser talks (waiting ones included).
    Open beginOpen(const TalkKey& key, const TalkRequester& who, int maxPerUser);

    // The device side of the talk at key is opened: the waiting open's
    // requester, who owns the talk from now on; false when none waits.
    bool opened(const TalkKey& key, TalkRequester& owner);

    // The talk at key ended (closed, timed out, its client gone).
    void ended(const TalkKey& key);

    // True while the talk at key runs (its device side is open).
    bool running(const TalkKey& key);

    // True when user may close the talk at key or link audio to it: there is
    // none (the plug-in then says so), or it is the user's.
    bool mayUse(const TalkKey& key, const std::string& user);

private:
    struct Talk {
        TalkRequester owner;
        bool running = false;
        int64_t openedAt = 0;  // when the open was accepted
    };
    void dropStaleOpens(int64_t now);

    std::function<int64_t()> m_now;
    std::mutex m_lock;  // guards m_talks
    std::map<TalkKey, Talk> m_talks;
};

#endif  // GATEWAY_TALK_OWNERS_H
