// One queued job of the request queue. Every event of the plug-in (a request
// of the embedded HTTP server, a raw audio connection, a session's own end, a
// time-out) becomes one of these and runs later on a worker thread.
#ifndef HTTPWRAPPER_FRAME_ASYNCREQUEST_H
#define HTTPWRAPPER_FRAME_ASYNCREQUEST_H

#include <string>

#include <zrt/zrt.h>

namespace HttpWrapper {

enum AsyncCommand {
    ASYNC_HTTP_CREATE = 1,         // an HTTP connection delivered a request: create its session
    ASYNC_HTTP_PROCESS = 2,        // feed the received request to a standard session
    ASYNC_HTTP_DESTROY = 3,        // destroy a standard session
    ASYNC_UNSTANDARD_CREATE = 4,   // a raw audio connection was accepted: create its session
    ASYNC_UNSTANDARD_PROCESS = 5,  // let a raw session read and handle its request
    ASYNC_UNSTANDARD_DESTROY = 6,  // destroy a raw session
    ASYNC_TALK_DESTROY = 7,        // destroy the talk session named by the key
};

struct tagAsyncReq {
    int iCmdType = 0;
    void* pSession = nullptr;  // not owned
    long lHttpHandle = -1;
    char* pData = nullptr;  // in a queued copy: owned, allocated with new[]
    int iDataLen = 0;
    int iSocket = -1;
    std::string strKey;  // URL of a talk session
    ZRT_UINT64 ullEnqueueTime = 0;
    // The serial of the session the job was made for (SessionJobs.h); 0: whichever holds the key.
    ZRT_UINT64 ullSessionSerial = 0;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_ASYNCREQUEST_H
