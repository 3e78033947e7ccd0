// The raw two-way audio channel: its own TCP listener on the loopback address
// at "audioTalkPort", an accept thread that turns each connection into a
// queued create job, and the registry of raw sessions by socket.
#ifndef HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSIONMGR_H
#define HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSIONMGR_H

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>
#include <zrt/zrt.h>

#include "frame/AsyncRequest.h"
#include "frame/HttpServerWrapper.h"
#include "frame/singleton.h"

namespace HttpWrapper {

class CHttpUnstandardSession;

class CHttpUnstandardSessionMgr : public singleton<CHttpUnstandardSessionMgr> {
public:
    CHttpUnstandardSessionMgr();
    ~CHttpUnstandardSessionMgr() override;

    int startListen(const char* url, PROTOCOL_WRAPPER::IServerSink* sink, ServerParams& params);
    int stopListen();
    void setProtocolFilterChain(PROTOCOL_FILTER::IProtocolFilter* chain) { m_pProtocolFilterChain = chain; }

    // -1 when the socket is registered already.
    int addSession(int socket, std::shared_ptr<CHttpUnstandardSession> session);
    std::shared_ptr<CHttpUnstandardSession> removeSession(int socket);
    std::shared_ptr<CHttpUnstandardSession> getSession(int socket);
    int getSessionCount();
    static int getIntParam(ServerParams& params, const std::string& name);

    int processHttpUnstandardCreate(tagAsyncReq* req);
    int processHttpUnstandardProcess(tagAsyncReq* req);
    int processHttpUnstandardDestroy(tagAsyncReq* req);

    // One ageing pass: a session idle for more than kIdlePasses passes is destroyed.
    void timeOutCheck();

    static void* fnAcceptThread(void* manager);

    // The port the channel listens on (the configured one, or the ephemeral one
    // when "audioTalkPort" is absent); -1 without a listener.
    int getListenPort();

    // Finishes every session still registered: the server is going away.
    void closeAll();

    static const int kIdlePasses = 1;

private:
    // The session registered under the job's socket, when it is the one the job
    // was made for (sockets are reused once closed).
    std::shared_ptr<CHttpUnstandardSession> findJobSession(tagAsyncReq* req, bool remove);

    int m_iStarted = 0;
    std::atomic<int> m_iRunning{0};
    PROTOCOL_WRAPPER::IServerSink* m_pServerSink = nullptr;
    PROTOCOL_FILTER::IProtocolFilter* m_pProtocolFilterChain = nullptr;
    int m_iListenPort = 0;
    std::atomic<int> m_iListenSocket{-1};
    ZRT_THREAD_T m_acceptThread = ZRT_INVALID_THREAD;
    std::map<int, std::shared_ptr<CHttpUnstandardSession>> m_sessions;
    ZRT_Mutex m_mutex{1};  // guards m_sessions
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSIONMGR_H
