// The jobs a session is named in. A job names its session by address (for
// the logs and the tests) and by serial: a manager acts on the job only while
// the session under the job's key has that serial, since a new session may be
// given the address of one already freed.
#ifndef HTTPWRAPPER_FRAME_SESSIONJOBS_H
#define HTTPWRAPPER_FRAME_SESSIONJOBS_H

#include <atomic>

#include "frame/AsyncRequest.h"
#include "frame/HttpServerWrapper.h"

namespace HttpWrapper {

// A job of `command` for `session`; the caller adds the key it is registered under.
template <typename Session>
tagAsyncReq SessionJob(int command, Session* session)
{
    tagAsyncReq job;
    job.iCmdType = command;
    job.pSession = session;
    job.ullSessionSerial = session->serial();
    return job;
}

// A session's request for its own destruction: queued once, whatever the
// number of calls (an end of stream, a failed send, a closed link).
inline void PushDestroyOnce(std::atomic<int>& requested, tagAsyncReq& job)
{
    int expected = 0;
    if (requested.compare_exchange_strong(expected, 1)) {
        singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&job);
    }
}

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SESSIONJOBS_H
