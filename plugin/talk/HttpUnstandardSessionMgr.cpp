#include "talk/HttpUnstandardSessionMgr.h"

#include <errno.h>

#include <new>

#include "frame/ErrorCodes.h"
#include "frame/Log.h"
#include "frame/NewSession.h"
#include "frame/SessionJobs.h"
#include "talk/HttpUnstandardSession.h"
#include "transport/SocketHelpers.h"

namespace HttpWrapper {

namespace {
// The channel serves the gateway's host only: audio clients on other hosts come
// through a proxy, as for the standard port.
const char kListenAddress[] = "127.0.0.1";
const ZRT_UINT32 kAcceptForever = 0xFFFFFFFF;
// Out of descriptors or memory: the listener stays, the thread waits this long
// and tries again rather than leave the channel deaf.
const ZRT_UINT32 kAcceptBackoffMs = 100;
const ZRT_UINT32 kBackoffLogEveryMs = 5000;

bool isTransientAcceptError(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void pushCreate(int socket)
{
    tagAsyncReq req;
    req.iCmdType = ASYNC_UNSTANDARD_CREATE;
    req.iSocket = socket;
    singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&req);
}

// The gate's deadline passed for a connection that became a session: whichever session holds the
// socket now (the gate knows the socket is still that connection's).
void pushExpiredDestroy(int socket)
{
    tagAsyncReq req;
    req.iCmdType = ASYNC_UNSTANDARD_DESTROY;
    req.iSocket = socket;
    singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&req);
}
}  // namespace

CHttpUnstandardSessionMgr::CHttpUnstandardSessionMgr() = default;

CHttpUnstandardSessionMgr::~CHttpUnstandardSessionMgr() = default;

int CHttpUnstandardSessionMgr::getIntParam(ServerParams& params, const std::string& name)
{
    return CHttpServerWrapper::getIntParam(params, name);
}

int CHttpUnstandardSessionMgr::startListen(const char* url, PROTOCOL_WRAPPER::IServerSink* sink, ServerParams& params)
{
    if (sink == nullptr) {
        HPW_LOGE(HPW_ERR_PARAM, "CHttpUnstandardSessionMgr StartListen failed, pServerSink is NULL");
        return HPW_ERR_PARAM;
    }
    m_pServerSink = sink;
    m_iStarted = 1;
    m_iRunning = 1;
    m_iListenPort = getIntParam(params, "audioTalkPort");
    m_iListenSocket = Listen(kListenAddress, static_cast<unsigned short>(m_iListenPort));
    if (m_iListenSocket == -1) {
        return HPW_ERR_LISTEN;  // Listen logged why
    }
    const CServerOptions& options = singleton<CHttpServerWrapper>::instance()->options();
    if (options.boundsConnections()) {
        CRawConnectionGate::Limits limits;
        limits.headTimeoutMs = options.headTimeoutMs;
        limits.maxConnections = options.maxConnections;
        limits.maxPerAddress = options.maxConnectionsPerAddress;
        limits.reserveFds = options.reserveFds;
        m_pGate.reset(new (std::nothrow) CRawConnectionGate(limits, pushCreate, pushExpiredDestroy));
        if (!m_pGate) {
            HPW_LOGE(HPW_ERR_NO_MEMORY, "Qumex talk gate cannot be made, errcode:%d", ZRT_GetSystemLastError());
            return HPW_ERR_NO_MEMORY;  // the listener stays open until stopListen
        }
    }
    m_acceptThread = ZRT_Thread_Create(fnAcceptThread, this, 0);
    if (m_acceptThread == ZRT_INVALID_THREAD) {
        HPW_LOGE(HPW_ERR_THREAD, "fnAcceptThread Create fail, errCode<%d>", ZRT_GetSystemLastError());
        return HPW_ERR_THREAD;  // the listener stays open until stopListen
    }
    return 0;
}

int CHttpUnstandardSessionMgr::stopListen()
{
    if (m_iStarted == 0) {
        return 0;
    }
    m_iRunning = 0;
    // Without a gate, closing the listener is what wakes the accept thread. The gate looks at the running
    // flag every 100 ms and watches the listener with its poller: it is joined first, so that the listener
    // is not closed under its use.
    if (m_pGate && m_acceptThread != ZRT_INVALID_THREAD) {
        ZRT_Thread_Wait(m_acceptThread);
        m_acceptThread = ZRT_INVALID_THREAD;
    }
    int listenSocket = m_iListenSocket.exchange(-1);
    if (listenSocket != -1) {
        CloseSocket(listenSocket);
    }
    if (m_acceptThread != ZRT_INVALID_THREAD) {
        ZRT_Thread_Wait(m_acceptThread);
        m_acceptThread = ZRT_INVALID_THREAD;
    }
    return 0;
}

int CHttpUnstandardSessionMgr::getListenPort()
{
    ZRT_ADDR_T address;
    int listenSocket = m_iListenSocket;
    if (listenSocket == -1 || ZRT_GetSockName(listenSocket, &address) != 0) {
        return -1;
    }
    return ZRT_GetAddrPort(&address);
}

void* CHttpUnstandardSessionMgr::fnAcceptThread(void* manager)
{
    CHttpUnstandardSessionMgr* self = static_cast<CHttpUnstandardSessionMgr*>(manager);
    if (self == nullptr) {
        HPW_LOGE(HPW_ERR_PARAM, "Asyn http process thread parameter error");
        return nullptr;
    }
    // Read once: stopListen forgets the listener when it closes it.
    const int listenSocket = self->m_iListenSocket;
    if (self->m_pGate && self->m_pGate->serve(listenSocket, self->m_iRunning)) {
        HPW_LOGD("Accept thread exit!");
        return nullptr;
    }
    ZRT_UINT64 lastBackoffLog = 0;
    while (self->m_iRunning != 0) {
        ZRT_ADDR_T peer;
        int socket = Accept(listenSocket, &peer, kAcceptForever);
        if (socket == -1) {
            int error = ZRT_GetSystemLastError();
            if (self->m_iRunning != 0 && isTransientAcceptError(error)) {
                ZRT_UINT64 now = ZRT_GetTimeTick64();
                if (now - lastBackoffLog >= kBackoffLogEveryMs) {
                    lastBackoffLog = now;
                    HPW_LOGW(HPW_ERR_ACCEPT, "Qumex talk accept fail, retrying, systemerr=%d", error);
                }
                ZRT_Sleep(kAcceptBackoffMs);
                continue;
            }
            HPW_LOGW(HPW_ERR_ACCEPT, "Qumex talk listen socket may have closed,systemerr=%d", error);
            break;
        }
        pushCreate(socket);
    }
    HPW_LOGD("Accept thread exit!");
    return nullptr;
}

int CHttpUnstandardSessionMgr::processHttpUnstandardCreate(tagAsyncReq* req)
{
    if (req == nullptr || req->iCmdType != ASYNC_UNSTANDARD_CREATE) {
        HPW_LOGE(HPW_ERR_PARAM, "Http unstandard create parameter error");
        return HPW_ERR_PARAM;
    }
    std::shared_ptr<CHttpUnstandardSession> session =
        NewSession<CHttpUnstandardSession>(m_pProtocolFilterChain, m_pServerSink);
    if (!session) {
        HPW_LOGE(HPW_ERR_NO_MEMORY, "new CHttpSession failed, errcode:%d", ZRT_GetSystemLastError());
        int socket = req->iSocket;
        releaseAtGate(socket);
        CloseSocket(socket);
        return HPW_ERR_NO_MEMORY;
    }
    if (session->init(req->iSocket) != 0) {
        releaseAtGate(req->iSocket);
        session->fini();
        return HPW_ERR_SESSION_INIT;
    }
    if (addSession(req->iSocket, session) != 0) {
        releaseAtGate(req->iSocket);
        session->fini();
        return HPW_ERR_SESSION_NOT_FOUND;
    }
    tagAsyncReq process = SessionJob(ASYNC_UNSTANDARD_PROCESS, session.get());
    process.iSocket = req->iSocket;
    singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&process);
    return 0;
}

int CHttpUnstandardSessionMgr::processHttpUnstandardProcess(tagAsyncReq* req)
{
    if (req == nullptr || req->iCmdType != ASYNC_UNSTANDARD_PROCESS) {
        HPW_LOGE(HPW_ERR_PARAM, "Http unstandard process parameter error");
        return HPW_ERR_PARAM;
    }
    std::shared_ptr<CHttpUnstandardSession> session = m_sessions.find(req->iSocket, req->ullSessionSerial);
    if (!session) {
        HPW_LOGE(HPW_ERR_SESSION_NOT_FOUND, "Http unstandard session not found!");
        return HPW_ERR_SESSION_NOT_FOUND;
    }
    return session->processRecvData(nullptr, 0);
}

int CHttpUnstandardSessionMgr::processHttpUnstandardDestroy(tagAsyncReq* req)
{
    if (req == nullptr || req->iCmdType != ASYNC_UNSTANDARD_DESTROY) {
        HPW_LOGE(HPW_ERR_PARAM, "Http unstandard destroy parameter error");
        return HPW_ERR_PARAM;
    }
    std::shared_ptr<CHttpUnstandardSession> session = m_sessions.take(req->iSocket, req->ullSessionSerial);
    if (!session) {
        HPW_LOGE(HPW_ERR_SESSION_NOT_FOUND, "Http unstandard session not found!");
        return HPW_ERR_SESSION_NOT_FOUND;
    }
    // Before fini, which may close the socket: its number must not be reused while the gate knows it.
    releaseAtGate(req->iSocket);
    return session->fini();
}

int CHttpUnstandardSessionMgr::addSession(int socket, std::shared_ptr<CHttpUnstandardSession> session)
{
    if (m_sessions.add(socket, std::move(session))) {
        return 0;
    }
    HPW_LOGE(HPW_ERR_TALK_EXISTS, "[socket = %d]talk already opened", socket);
    return -1;
}

std::shared_ptr<CHttpUnstandardSession> CHttpUnstandardSessionMgr::removeSession(int socket)
{
    return m_sessions.remove(socket);
}

std::shared_ptr<CHttpUnstandardSession> CHttpUnstandardSessionMgr::getSession(int socket)
{
    return m_sessions.get(socket);
}

int CHttpUnstandardSessionMgr::getSessionCount()
{
    return static_cast<int>(m_sessions.size());
}

void CHttpUnstandardSessionMgr::timeOutCheck()
{
    m_sessions.agePass([](int, CHttpUnstandardSession& session) { return session.getTimeoutCount() > kIdlePasses; },
                       [](CHttpUnstandardSession& session) { session.increaseTimeoutCount(); });
}

void CHttpUnstandardSessionMgr::closeAll()
{
    for (auto& entry : m_sessions.takeAll()) {
        entry.second->fini();
    }
    m_pGate.reset();
}

void CHttpUnstandardSessionMgr::releaseAtGate(int socket)
{
    if (m_pGate) {
        m_pGate->release(socket);
    }
}

}  // namespace HttpWrapper
