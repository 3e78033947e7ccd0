// The raw two-way audio channel: its own TCP listener on the loopback address
// at "audioTalkPort", an accept thread that turns each connection into a
// queued create job, and the registry of raw sessions by socket. When the
// server URL bounds connections, the accept thread admits them through a gate
// (CRawConnectionGate) that holds each one without a session until its request
// head is there, and closes it at its deadline.
#ifndef HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSIONMGR_H
#define HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSIONMGR_H

#include <atomic>
#include <memory>
#include <string>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>
#include <zrt/zrt.h>

#include "frame/AsyncRequest.h"
#include "frame/HttpServerWrapper.h"
#include "frame/SessionTable.h"
#include "frame/singleton.h"
#include "talk/RawConnectionGate.h"

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

    // Finishes every session still registered and closes the connections at the
    // gate: the server is going away (its workers have stopped).
    void closeAll();

    static const int kIdlePasses = 1;

private:
    // The gate forgets the socket's connection: its session is gone or was never made.
    void releaseAtGate(int socket);

    int m_iStarted = 0;
    std::atomic<int> m_iRunning{0};
    PROTOCOL_WRAPPER::IServerSink* m_pServerSink = nullptr;
    PROTOCOL_FILTER::IProtocolFilter* m_pProtocolFilterChain = nullptr;
    int m_iListenPort = 0;
    std::atomic<int> m_iListenSocket{-1};
    ZRT_THREAD_T m_acceptThread = ZRT_INVALID_THREAD;
    // Made by startListen when connections are bounded, before the accept thread; freed by closeAll once
    // no worker runs.
    std::unique_ptr<CRawConnectionGate> m_pGate;
    CSessionTable<int, CHttpUnstandardSession> m_sessions{ASYNC_UNSTANDARD_DESTROY, &tagAsyncReq::iSocket};
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSIONMGR_H
