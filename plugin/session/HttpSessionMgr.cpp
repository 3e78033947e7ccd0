#include "session/HttpSessionMgr.h"

#include <string.h>

#include <netutils/VQNetUtils.h>

#include "frame/ErrorCodes.h"
#include "frame/FatalAssert.h"
#include "frame/Log.h"
#include "frame/NewSession.h"
#include "frame/SessionJobs.h"
#include "session/HttpSession.h"
#include "session/SystemTraits.h"

namespace HttpWrapper {

namespace {
// The embedded HTTP server listens on the loopback interface only, on purpose:
// the gateway (or the reverse proxy in front of it) is its only client.
const char kListenAddress[] = "127.0.0.1";
const int kDefaultSendTimeoutMs = 5000;
const int kDefaultRecvTimeoutMs = 30000;
const ZRT_UINT32 kReleaseWaitMs = 100;
const ZRT_UINT32 kFiniPollMs = 10;

// The low 16 bits of a time-out parameter, or the default when they are 0.
int timeoutParam(ServerParams& params, const char* key, int fallback)
{
    int value = CHttpServerWrapper::getIntParam(params, key) & 0xFFFF;
    return value != 0 ? value : fallback;
}
}  // namespace

CHttpSessionMgr::CHttpSessionMgr() = default;

CHttpSessionMgr::~CHttpSessionMgr() = default;

int CHttpSessionMgr::startListen(const char* url, PROTOCOL_WRAPPER::IServerSink* sink, ServerParams& params)
{
    if (sink == nullptr) {
        HPW_LOGE(HPW_ERR_PARAM, "CHttpSessionMgr StartListen failed, pServerSink is NULL");
        return HPW_ERR_PARAM;
    }
    m_pServerSink = sink;
    return init(params);
}

int CHttpSessionMgr::stopListen()
{
    fini();
    return 0;
}

int CHttpSessionMgr::init(ServerParams& params)
{
    HPW_LOGD("CHttpSessionMgr init");
    m_iInit = 1;
    m_iReleaseRunning = 1;

    std::string dir = SystemTraits::GetExeDir();
    std::string cryptoPath = dir + "/" + "libcrypto.so";
    std::string sslPath = dir + "/" + "libssl.so";
    NET_UTILS_SetSDKInitCfg(NET_SDK_CFG_CRYPTO_PATH, cryptoPath.c_str());
    NET_UTILS_SetSDKInitCfg(NET_SDK_CFG_SSL_PATH, sslPath.c_str());
    NET_UTILS_Init();

    NET_HTTPSERVER_LISTEN_PARAM listen;
    memset(&listen, 0, sizeof listen);
    strncpy(listen.szAddress, kListenAddress, sizeof listen.szAddress - 1);
    listen.wPort = static_cast<uint16_t>(CHttpServerWrapper::getIntParam(params, "httpPort"));
    listen.dwSendTimeout = static_cast<uint32_t>(timeoutParam(params, "sendTimeout", kDefaultSendTimeoutMs));
    listen.dwRecvTimeout = static_cast<uint32_t>(timeoutParam(params, "recvTimeout", kDefaultRecvTimeoutMs));
    // The bounds a gateway asks for in the server URL; zero (none) unless it does.
    const CServerOptions& options = singleton<CHttpServerWrapper>::instance()->options();
    listen.dwHeadTimeout = static_cast<uint32_t>(options.headTimeoutMs);
    listen.dwMaxConnections = static_cast<uint32_t>(options.maxConnections);
    listen.dwMaxPerAddress = static_cast<uint32_t>(options.maxConnectionsPerAddress);
    listen.dwReserveFds = static_cast<uint32_t>(options.reserveFds);
    listen.byIoThreads = static_cast<uint8_t>(options.ioThreads);
    listen.fnCallback = fnHttpServerDataCB;
    listen.pUser = this;

    m_lListenHandle = NET_HTTPSERVER_CreateListen(&listen);
    if (m_lListenHandle == -1) {
        HPW_LOGE(HPW_ERR_NETUTILS, "create http listen error, errorcode:%d", NET_UTILS_GetLastError());
        fini();
        return HPW_ERR_NETUTILS;
    }

    m_releaseThread = ZRT_Thread_Create(fnAsynRelaseHandleThread, this, 0);
    if (m_releaseThread == ZRT_INVALID_THREAD) {
        // Q18: the text and the thread's name are spelt as operators and the interface know them.
        HPW_LOGE(HPW_ERR_THREAD, "fnReleaseHandleTread Create fail, errCode<%d>", ZRT_GetSystemLastError());
        fini();
        return HPW_ERR_THREAD;
    }
    return 0;
}

int CHttpSessionMgr::fini()
{
    HPW_LOGD("CHttpSessionMgr Fini");
    if (m_iInit == 0) {
        return 0;
    }
    if (m_lListenHandle != -1) {
        // Ends every connection; each one still known to a session comes back as
        // an end event, whose destroy job empties the table below.
        NET_HTTPSERVER_DestroyListen(m_lListenHandle);
        m_lListenHandle = -1;
    }
    // No upper bound: sessions leave the table through destroy jobs and time-outs.
    while (getHttpSessionCount() != 0) {
        ZRT_Sleep(kFiniPollMs);
    }
    m_iReleaseRunning = 0;
    if (m_releaseThread != ZRT_INVALID_THREAD) {
        ZRT_Thread_Wait(m_releaseThread);
        m_releaseThread = ZRT_INVALID_THREAD;
    }
    std::deque<long> handles;
    getInvalidHandleQueue(handles);
    for (long handle : handles) {
        HPW_LOGD("close http handle:%ld", handle);
        NET_HTTPSERVER_Close(static_cast<int>(handle), 1);
    }
    NET_UTILS_Fini();
    m_iInit = 0;
    return 0;
}

int CHttpSessionMgr::getListenPort()
{
    return m_lListenHandle == -1 ? -1 : NET_HTTPSERVER_GetListenPort(m_lListenHandle);
}

// Runs on the embedded server's threads: it only describes the event as a job.
void CHttpSessionMgr::fnHttpServerDataCB(int handle, void* event, void* user)
{
    NET_HTTPSERVER_EVENT* info = static_cast<NET_HTTPSERVER_EVENT*>(event);
    CHttpSessionMgr* self = static_cast<CHttpSessionMgr*>(user);
    if (info == nullptr || self == nullptr) {
        HPW_LOGE(HPW_ERR_PARAM, "http server callback parameter error");
        return;
    }
    if (info->dwType == NET_HTTPSERVER_EVENT_REQUEST) {
        tagAsyncReq req;
        req.iCmdType = ASYNC_HTTP_CREATE;
        req.lHttpHandle = handle;
        req.pData = const_cast<char*>(info->pData);
        req.iDataLen = static_cast<int>(info->dwDataLen);
        singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&req);
    } else if (info->dwType >= NET_HTTPSERVER_EVENT_REFUSED_MIN && info->dwType <= NET_HTTPSERVER_EVENT_REFUSED_MAX) {
        HPW_LOGE(HPW_ERR_REFUSED_EVENT, "http server callback parameter error");
        self->addInvalidHandle(handle);
    } else if (info->dwType >= NET_HTTPSERVER_EVENT_CLOSED) {
        tagAsyncReq req;
        req.iCmdType = ASYNC_HTTP_DESTROY;
        req.lHttpHandle = handle;
        // The session only travels by name with the job; the worker looks it up
        // again by handle and serial and holds it by a shared pointer while it works.
        std::shared_ptr<CHttpSession> session = self->getSession(handle);
        req.pSession = session.get();
        req.ullSessionSerial = session ? session->serial() : 0;
        HPW_LOGD("[hanele=%d]vqnetutils callback exception", handle);  // Q18: spelt as operators know it
        singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&req);
    }
}

// Connection handles are closed on this thread, never inside the embedded
// server's callback.
void* CHttpSessionMgr::fnAsynRelaseHandleThread(void* manager)
{
    CHttpSessionMgr* self = static_cast<CHttpSessionMgr*>(manager);
    if (self == nullptr) {
        HPW_LOGE(HPW_ERR_PARAM, "Asyn release handle thread parameter error");
        return nullptr;
    }
    while (self->m_iReleaseRunning != 0) {
        if (ZRT_Sema_TimedWait(&self->m_releaseSema, kReleaseWaitMs) != 0) {
            continue;
        }
        std::deque<long> handles;
        self->getInvalidHandleQueue(handles);
        for (long handle : handles) {
            NET_HTTPSERVER_Close(static_cast<int>(handle), 1);
        }
    }
    HPW_LOGD("Http async release handle thread exit");
    return nullptr;
}

int CHttpSessionMgr::processHttpCreate(tagAsyncReq* req)
{
    if (req == nullptr || req->iCmdType != ASYNC_HTTP_CREATE) {
        HPW_LOGE(HPW_ERR_PARAM, "Http create parameter error");
        return HPW_ERR_PARAM;
    }
    std::shared_ptr<CHttpSession> session = NewSession<CHttpSession>(m_pProtocolFilterChain, m_pServerSink);
    if (!session) {
        HPW_LOGE(HPW_ERR_NO_MEMORY, "new CHttpSession failed, errcode:%d", ZRT_GetSystemLastError());
        if (req->lHttpHandle != -1) {
            addInvalidHandle(req->lHttpHandle);
        }
        return HPW_ERR_NO_MEMORY;
    }
    if (session->init(static_cast<int>(req->lHttpHandle)) != 0) {
        session->fini();
        return HPW_ERR_SESSION_INIT;
    }
    if (addSession(req->lHttpHandle, session) == -1) {
        session->fini();
        return HPW_ERR_SESSION_NOT_FOUND;
    }
    // The request is parsed by a later job, never in the creating step.
    tagAsyncReq process = SessionJob(ASYNC_HTTP_PROCESS, session.get());
    process.lHttpHandle = req->lHttpHandle;
    process.pData = req->pData;
    process.iDataLen = req->iDataLen;
    singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&process);
    return 0;
}

int CHttpSessionMgr::processHttpProcess(tagAsyncReq* req)
{
    if (req == nullptr || req->iCmdType != ASYNC_HTTP_PROCESS) {
        HPW_LOGE(HPW_ERR_PARAM, "Http process parameter error");
        return HPW_ERR_PARAM;
    }
    std::shared_ptr<CHttpSession> session = getSession(req->lHttpHandle);
    if (!session) {
        HPW_LOGE(HPW_ERR_SESSION_NOT_FOUND, "Http session not found!");
        return HPW_ERR_SESSION_NOT_FOUND;
    }
    return session->processRecvData(req->pData, req->iDataLen);
}

int CHttpSessionMgr::processHttpDestroy(tagAsyncReq* req)
{
    if (req == nullptr || req->iCmdType != ASYNC_HTTP_DESTROY) {
        HPW_LOGE(HPW_ERR_PARAM, "Http destroy parameter error");
        return HPW_ERR_PARAM;
    }
    HPW_LOGD("[handle=%d]start destroy http session", static_cast<int>(req->lHttpHandle));
    // Handles are reused once closed: a stale job names the session it was made for.
    std::shared_ptr<CHttpSession> session = m_sessions.take(static_cast<int>(req->lHttpHandle), req->ullSessionSerial);
    if (!session) {
        HPW_LOGE(HPW_ERR_SESSION_NOT_FOUND, "[handle=%d]Http session not found!", static_cast<int>(req->lHttpHandle));
        return HPW_ERR_SESSION_NOT_FOUND;
    }
    return session->fini();
}

int CHttpSessionMgr::addSession(long handle, std::shared_ptr<CHttpSession> session)
{
    int key = static_cast<int>(handle);
    if (m_sessions.add(key, std::move(session))) {
        return key;
    }
    // A handle that is already in the table is a programming error (the embedded
    // server never reuses a handle before it is closed): stop, in every build.
    HPW_FATAL_ASSERT("handle not yet in the session table", __FILE__, __LINE__, __PRETTY_FUNCTION__);
}

std::shared_ptr<CHttpSession> CHttpSessionMgr::getSession(long handle)
{
    return m_sessions.get(static_cast<int>(handle));
}

std::shared_ptr<CHttpSession> CHttpSessionMgr::removeSession(long handle)
{
    return m_sessions.remove(static_cast<int>(handle));
}

int CHttpSessionMgr::getHttpSessionCount()
{
    return static_cast<int>(m_sessions.size());
}

void CHttpSessionMgr::addInvalidHandle(long handle)
{
    {
        ZRT_Guard guard(m_handleMutex);
        m_invalidHandles.push_back(handle);
    }
    ZRT_Sema_Post(&m_releaseSema);
}

void CHttpSessionMgr::getInvalidHandleQueue(std::deque<long>& handles)
{
    handles.clear();
    ZRT_Guard guard(m_handleMutex);
    handles.swap(m_invalidHandles);
}

void CHttpSessionMgr::timeOutCheck()
{
    // A session whose file the server's loop is sending neither ages nor ends here: the loop enforces the send
    // time-out and the minimum rate, and ends it.
    m_sessions.agePass(
        [](long, CHttpSession& session) {
            return !session.isDelivering() && session.getTimeoutCount() > kSessionTimeoutPasses;
        },
        [](CHttpSession& session) {
            if (!session.isDelivering()) {
                session.increaseTimeoutCount();
            }
        });
}

int CHttpSessionMgr::increaseDownloadNum()
{
    return ++m_iDownloadNum;
}

int CHttpSessionMgr::decreaseDownloadNum()
{
    return --m_iDownloadNum;
}

int CHttpSessionMgr::getDownloadNum()
{
    return m_iDownloadNum.load();
}

}  // namespace HttpWrapper
