#include "frame/HttpServerWrapper.h"

#include <vector>

#include <ext/DeliveryRequest.h>

#include "frame/ErrorCodes.h"
#include "frame/Log.h"
#include "frame/SessionInterface.h"
#include "session/HttpSession.h"
#include "session/HttpSessionMgr.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/HttpUnstandardSessionMgr.h"
#include "util/StringUtils.h"

namespace HttpWrapper {

namespace {
// Completion threads of the audio channel's queue; the queue runs the audio
// transmitters' callbacks.
const int kCompletionThreads = 16;
const int kDefaultWorkerThreads = 20;
const ZRT_UINT32 kWorkerStackSize = 0x40000;  // 256 KiB
}  // namespace

CHttpServerWrapper::CHttpServerWrapper() = default;

// The threads must have been stopped by stopServer; the queue drops what it holds.
CHttpServerWrapper::~CHttpServerWrapper() = default;

int CHttpServerWrapper::setProtocolFilterChain(PROTOCOL_FILTER::IProtocolFilter* chain)
{
    singleton<CHttpSessionMgr>::instance()->setProtocolFilterChain(chain);
    singleton<CHttpUnstandardSessionMgr>::instance()->setProtocolFilterChain(chain);
    singleton<CAudioTalkSessionMgr>::instance()->setProtocolFilterChain(chain);
    return 0;
}

int CHttpServerWrapper::getIntParam(ServerParams& params, const std::string& key)
{
    // The inserting lookup is intended: a missing key reads as "" and so as 0.
    return ZRT_Atoi32(params[key].c_str());
}

bool CHttpServerWrapper::parseServerUrl(const std::string& url, std::string& scheme, ServerParams& params)
{
    // scheme "://" host ":" port "?" key=value pairs joined by "&". Any "/" after
    // the scheme makes a third piece and refuses the URL (no path is allowed).
    std::vector<std::string> pieces;
    if (Split(url, std::vector<std::string>{"://", "/"}, pieces, -1) != 2) {
        return false;
    }
    scheme = pieces[0];
    std::vector<std::string> items;
    Split(pieces[1], std::vector<std::string>{"?", "&"}, items, -1);

    std::vector<std::string> authority;
    if (Split(items[0], std::vector<std::string>{":"}, authority, -1) == 2 && m_usHttpPort == 0) {
        m_usHttpPort = static_cast<unsigned short>(ZRT_Atoi32(authority[1].c_str()));
        params.insert(std::make_pair(std::string("httpPort"), authority[1]));  // a query value overrides it
    }
    for (size_t i = 1; i < items.size(); ++i) {
        std::vector<std::string> pair;
        if (Split(items[i], std::vector<std::string>{"="}, pair, 1) == 2) {
            params[pair[0]] = pair[1];
        } else {
            params[items[i]] = items[i];
        }
    }
    return true;
}

int CHttpServerWrapper::startServer(const char* url, PROTOCOL_WRAPPER::IServerSink* sink)
{
    m_iStarted = 1;
    m_iRunning = 1;

    m_hAsyncIocpQueue = ZRT_AsyncIO_CreateQueueEx_New(kCompletionThreads);
    if (m_hAsyncIocpQueue == ZRT_INVALID_ASYNCIOQUEUE) {
        HPW_LOGE(HPW_ERR_ASYNC_QUEUE, "[0x%08x] - ZRT_AsyncIO_CreateQueueEx Fail", ZRT_GetSystemLastError());
        return HPW_ERR_ASYNC_QUEUE;
    }

    std::string serverUrl = url != nullptr ? url : "";
    std::string scheme;
    ServerParams params;
    if (!parseServerUrl(serverUrl, scheme, params)) {
        HPW_LOGE(HPW_ERR_URL, "CHttpServerWrapper startServer failed, ParseServerUrl return err, serverUrl:%s",
                 serverUrl.c_str());
        return HPW_ERR_URL;
    }
    m_options = CServerOptions::fromParams(params);

    if (m_requestQueue.create() != 0) {
        HPW_LOGE(HPW_ERR_SEMAPHORE, "Create req semaphore fail, syserr=%d", ZRT_GetSystemLastError());
        return HPW_ERR_SEMAPHORE;
    }

    m_timeoutThread = ZRT_Thread_Create(fnTimeoutCheckThread, this, 0);
    if (m_timeoutThread == ZRT_INVALID_THREAD) {
        HPW_LOGE(HPW_ERR_THREAD, "fnTimeoutCheckThread Create fail, errCode<%d>", ZRT_GetSystemLastError());
        return HPW_ERR_THREAD;
    }

    int workerCount = getIntParam(params, "work_thread") & 0xFFFF;
    if (workerCount == 0) {
        workerCount = kDefaultWorkerThreads;
    }
    HPW_LOGD("CHttpSessionMgr Init, iWorkThreadCount == %d", workerCount);
    for (int i = 0; i < workerCount; ++i) {
        ZRT_THREAD_T worker = ZRT_Thread_Create(fnAsynProcessThread, this, kWorkerStackSize);
        if (worker == ZRT_INVALID_THREAD) {
            // The server runs with fewer workers rather than not at all.
            HPW_LOGE(HPW_ERR_THREAD, "CHttpSessionMgr Init fail, fnAsynHttpProcessThread Create fail, errCode<%d>",
                     ZRT_GetSystemLastError());
            continue;
        }
        m_workerThreads.push_back(worker);
    }

    int result = singleton<CHttpSessionMgr>::instance()->startListen(url, sink, params);
    if (result == 0) {
        result = singleton<CHttpUnstandardSessionMgr>::instance()->startListen(url, sink, params);
    }
    if (result == 0) {
        result = singleton<CAudioTalkSessionMgr>::instance()->start(url, sink);
    }
    return result;
}

int CHttpServerWrapper::stopServer()
{
    if (m_iStarted == 0) {
        return 0;
    }
    singleton<CHttpSessionMgr>::instance()->stopListen();
    singleton<CHttpUnstandardSessionMgr>::instance()->stopListen();
    singleton<CAudioTalkSessionMgr>::instance()->stop();

    m_iRunning = 0;
    if (m_timeoutThread != ZRT_INVALID_THREAD) {
        ZRT_Thread_Wait(m_timeoutThread);
        m_timeoutThread = ZRT_INVALID_THREAD;
    }
    for (ZRT_THREAD_T worker : m_workerThreads) {
        ZRT_Thread_Wait(worker);
    }
    m_workerThreads.clear();

    // Nothing of the audio channel outlives the server: connections accepted
    // but not yet served, raw sessions and open talks are closed (the talks'
    // gateway streams with them) while the completion queue their links are
    // bound to still exists.
    dropLeftoverJobs();
    singleton<CHttpUnstandardSessionMgr>::instance()->closeAll();
    singleton<CAudioTalkSessionMgr>::instance()->closeAll();
    m_requestQueue.destroy();
    if (m_hAsyncIocpQueue != nullptr && m_hAsyncIocpQueue != ZRT_INVALID_ASYNCIOQUEUE) {
        ZRT_AsyncIO_DestroyQueueEx(m_hAsyncIocpQueue);
    }
    m_hAsyncIocpQueue = nullptr;
    m_iStarted = 0;
    return 0;
}

int CHttpServerWrapper::Send(PROTOCOL_WRAPPER::IServerData* data, int index, int dataType, void* buffer, int length)
{
    ISessionInterface* session = dynamic_cast<ISessionInterface*>(data);
    if (session == nullptr) {
        return HPW_ERR_PARAM;
    }
    return session->send(index, dataType, buffer, length);
}

int CHttpServerWrapper::SendMSG(PROTOCOL_WRAPPER::IServerData* data, int msgType, void* buffer, int length)
{
    if (msgType != PROTOCOL_WRAPPER::MSG_DELIVER_FILE) {
        return 0;
    }
    auto* request = static_cast<const PROTOCOL_WRAPPER::DeliveryRequest*>(buffer);
    if (request == nullptr || length != static_cast<int>(sizeof(PROTOCOL_WRAPPER::DeliveryRequest)) ||
        request->size != sizeof(PROTOCOL_WRAPPER::DeliveryRequest)) {
        return HPW_ERR_PARAM;
    }
    // Only a download's session has a reply to deliver a file into.
    CHttpSession* session = dynamic_cast<CHttpSession*>(data);
    if (session == nullptr) {
        return HPW_ERR_NOT_SUPPORTED;
    }
    return session->deliverFile(*request);
}

int CHttpServerWrapper::getSessionCount()
{
    return singleton<CHttpSessionMgr>::instance()->getDownloadNum() +
           static_cast<int>(singleton<CAudioTalkSessionMgr>::instance()->getTalkSessionCount());
}

}  // namespace HttpWrapper
