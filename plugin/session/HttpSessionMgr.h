// The standard HTTP side of the plug-in: one listener of the embedded HTTP
// server, whose connection events become queued jobs that create, feed and
// destroy one CHttpSession per connection; a thread that releases finished
// connection handles; the ageing of idle sessions; the count of downloads.
#ifndef HTTPWRAPPER_SESSION_HTTPSESSIONMGR_H
#define HTTPWRAPPER_SESSION_HTTPSESSIONMGR_H

#include <atomic>
#include <deque>
#include <memory>
#include <string>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>
#include <zrt/zrt.h>

#include "frame/AsyncRequest.h"
#include "frame/HttpServerWrapper.h"
#include "frame/SessionTable.h"
#include "frame/singleton.h"

namespace HttpWrapper {

class CHttpSession;

class CHttpSessionMgr : public singleton<CHttpSessionMgr> {
public:
    CHttpSessionMgr();
    ~CHttpSessionMgr() override;

    int startListen(const char* url, PROTOCOL_WRAPPER::IServerSink* sink, ServerParams& params);
    int stopListen();
    void setProtocolFilterChain(PROTOCOL_FILTER::IProtocolFilter* chain) { m_pProtocolFilterChain = chain; }
    int init(ServerParams& params);
    int fini();

    static void fnHttpServerDataCB(int handle, void* event, void* user);
    static void* fnAsynRelaseHandleThread(void* manager);  // the interface's name, spelling included (Q18)

    int processHttpCreate(tagAsyncReq* req);
    int processHttpProcess(tagAsyncReq* req);
    int processHttpDestroy(tagAsyncReq* req);

    int addSession(long handle, std::shared_ptr<CHttpSession> session);
    std::shared_ptr<CHttpSession> getSession(long handle);
    std::shared_ptr<CHttpSession> removeSession(long handle);
    int getHttpSessionCount();

    void addInvalidHandle(long handle);
    void getInvalidHandleQueue(std::deque<long>& handles);

    // One ageing pass (every 10 s): a session that sent nothing for six passes
    // is destroyed at the seventh.
    void timeOutCheck();

    int increaseDownloadNum();
    int decreaseDownloadNum();
    int getDownloadNum();

    // Port the listener is bound to (the configured one, or the ephemeral one
    // when "httpPort" was 0); -1 without a listener.
    int getListenPort();

    static const int kSessionTimeoutPasses = 5;

private:
    std::atomic<int> m_iInit{0};
    long m_lListenHandle = -1;
    PROTOCOL_WRAPPER::IServerSink* m_pServerSink = nullptr;
    PROTOCOL_FILTER::IProtocolFilter* m_pProtocolFilterChain = nullptr;
    std::atomic<int> m_iReleaseRunning{0};
    std::atomic<ZRT_INT32> m_iDownloadNum{0};
    CSessionTable<long, CHttpSession> m_sessions{ASYNC_HTTP_DESTROY, &tagAsyncReq::lHttpHandle};
    ZRT_Sema m_releaseSema{0, 65535};  // posted once per handle to close
    std::deque<long> m_invalidHandles;
    ZRT_THREAD_T m_releaseThread = ZRT_INVALID_THREAD;
    ZRT_Mutex m_handleMutex{1};  // guards m_invalidHandles
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_HTTPSESSIONMGR_H
