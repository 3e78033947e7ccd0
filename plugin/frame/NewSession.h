// A new session of any kind, held by a shared pointer, made without throwing:
// null when memory runs out, for the session or for the pointer's control
// block (the session is then deleted again).
#ifndef HTTPWRAPPER_FRAME_NEWSESSION_H
#define HTTPWRAPPER_FRAME_NEWSESSION_H

#include <memory>
#include <new>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>

namespace HttpWrapper {

template <typename Session>
std::shared_ptr<Session> NewSession(PROTOCOL_FILTER::IProtocolFilter* filterChain,
                                    PROTOCOL_WRAPPER::IServerSink* serverSink)
{
    std::shared_ptr<Session> session;
    Session* created = new (std::nothrow) Session(filterChain, serverSink);
    if (created != nullptr) {
        try {
            session.reset(created);
        } catch (const std::bad_alloc&) {
        }
    }
    return session;
}

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_NEWSESSION_H
