// The one server object of the plug-in: the gateway's IServer. It parses the
// server URL, owns the completion queue and the request queue with its worker
// and time-out threads, and starts and stops the session managers.
#ifndef HTTPWRAPPER_FRAME_HTTPSERVERWRAPPER_H
#define HTTPWRAPPER_FRAME_HTTPSERVERWRAPPER_H

#include <atomic>
#include <list>
#include <map>
#include <string>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>
#include <zrt/zrt.h>

#include "frame/AsyncRequest.h"
#include "frame/AsyncRequestQueue.h"
#include "frame/ServerOptions.h"
#include "frame/singleton.h"

namespace HttpWrapper {

class CHttpServerWrapper : public singleton<CHttpServerWrapper>, public PROTOCOL_WRAPPER::IServer {
public:
    CHttpServerWrapper();
    ~CHttpServerWrapper() override;

    // IServer
    int Start() override { return 0; }
    int Stop() override { return 0; }
    int Send(PROTOCOL_WRAPPER::IServerData* data, int index, int dataType, void* buffer, int length) override;
    // 0 for every message, as specified; a delivery request (ext/DeliveryRequest.h) is answered 0 when taken.
    int SendMSG(PROTOCOL_WRAPPER::IServerData* data, int msgType, void* buffer, int length) override;

    int setProtocolFilterChain(PROTOCOL_FILTER::IProtocolFilter* chain);
    int startServer(const char* url, PROTOCOL_WRAPPER::IServerSink* sink);
    int stopServer();
    bool parseServerUrl(const std::string& url, std::string& scheme, ServerParams& params);
    static int getIntParam(ServerParams& params, const std::string& key);
    int getSessionCount();
    void* getIocpHandle() { return m_hAsyncIocpQueue; }
    unsigned short getHttpPort() const { return m_usHttpPort; }
    // The opt-in behaviour the server URL asked for; fixed while the server runs.
    const CServerOptions& options() const { return m_options; }

    // Request queue: every event becomes a job that a worker runs later.
    void pushAsyncReq(tagAsyncReq* req);
    tagAsyncReq* popAsyncReq();
    int getAsyncQueueSize();
    // Runs one popped job unless it waited longer than kStaleJobMs at nowMs; frees
    // its data either way. The caller still deletes the job. Returns whether it ran.
    bool runAsyncReq(tagAsyncReq* req, ZRT_UINT64 nowMs);
    static void* fnAsynProcessThread(void* server);
    static void* fnTimeoutCheckThread(void* server);

    static const ZRT_UINT64 kStaleJobMs = 60000;

    // Sleeps of 100 ms between two passes of the time-out thread (default 100,
    // a pass about every 10 s). Tests shorten it rather than wait minutes.
    void setTimeoutCheckSleeps(int sleeps) { m_iTimeoutCheckSleeps = sleeps; }

private:
    void undoEvent(const tagAsyncReq& req);
    // Deletes the jobs no worker will run any more, closing the sockets of
    // accepted audio connections among them.
    void dropLeftoverJobs();

    std::atomic<int> m_iStarted{0};
    std::atomic<int> m_iRunning{0};  // polled by the threads at least every 100 ms
    unsigned short m_usHttpPort = 0;
    CServerOptions m_options;
    void* m_hAsyncIocpQueue = nullptr;
    std::list<ZRT_THREAD_T> m_workerThreads;
    CAsyncRequestQueue m_requestQueue;
    ZRT_THREAD_T m_timeoutThread = ZRT_INVALID_THREAD;
    std::atomic<int> m_iTimeoutCheckSleeps{100};
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_HTTPSERVERWRAPPER_H
