// The request queue of CHttpServerWrapper as the rest of the plug-in sees it,
// and the two thread bodies that serve it: the workers, which run every session
// job, and the time-out thread.
#include "frame/Clock.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "session/HttpSession.h"
#include "session/HttpSessionMgr.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/HttpUnstandardSession.h"
#include "talk/HttpUnstandardSessionMgr.h"
#include "talk/QumexAudioTalkSession.h"
#include "transport/SocketHelpers.h"

namespace HttpWrapper {

namespace {
const ZRT_UINT32 kPopWaitMs = 100;
const ZRT_UINT32 kTimeoutCheckSleepMs = 100;

// Finishes the standard session of a connection, or hands the bare connection
// to the release thread when no session exists yet.
void releaseHttpConnection(long handle)
{
    CHttpSessionMgr* manager = singleton<CHttpSessionMgr>::instance();
    std::shared_ptr<CHttpSession> session = manager->removeSession(handle);
    if (session) {
        session->fini();
    } else {
        manager->addInvalidHandle(handle);
    }
}
}  // namespace

// A job that cannot be queued must not leave its event hanging: the session it
// concerns is finished here and its connection released.
void CHttpServerWrapper::undoEvent(const tagAsyncReq& req)
{
    if (req.lHttpHandle >= 0) {
        releaseHttpConnection(req.lHttpHandle);
    }
    if (req.iSocket != -1) {
        std::shared_ptr<CHttpUnstandardSession> session =
            singleton<CHttpUnstandardSessionMgr>::instance()->removeSession(req.iSocket);
        if (session) {
            session->fini();
        } else {
            int socket = req.iSocket;
            CloseSocket(socket);
        }
    }
    if (!req.strKey.empty()) {
        std::string key = req.strKey;
        std::shared_ptr<CQumexAudioTalkSession> talk = singleton<CAudioTalkSessionMgr>::instance()->removeSession(key);
        if (talk) {
            talk->stop();
        }
    }
}

void CHttpServerWrapper::dropLeftoverJobs()
{
    while (tagAsyncReq* job = m_requestQueue.pop(0)) {
        // An accepted audio connection whose session was never made is closed
        // here; everything else a job names is closed with its manager.
        if (job->iCmdType == ASYNC_UNSTANDARD_CREATE && job->iSocket != -1) {
            CloseSocket(job->iSocket);
        }
        CAsyncRequestQueue::freeJob(job);
    }
}

void CHttpServerWrapper::pushAsyncReq(tagAsyncReq* req)
{
    if (req == nullptr) {
        return;
    }
    switch (m_requestQueue.push(*req, hpwTickMs())) {
    case CAsyncRequestQueue::PUSHED: break;
    case CAsyncRequestQueue::NO_JOB_MEMORY:
        undoEvent(*req);
        HPW_LOGE(HPW_ERR_NO_MEMORY, "new AsyncReq failed, errcode:%d", ZRT_GetSystemLastError());
        break;
    case CAsyncRequestQueue::NO_DATA_MEMORY:
        releaseHttpConnection(req->lHttpHandle);
        HPW_LOGE(HPW_ERR_NO_MEMORY, "new AsyncReq buffer failed, len=%d, errcode:%d", req->iDataLen,
                 ZRT_GetSystemLastError());
        break;
    }
}

tagAsyncReq* CHttpServerWrapper::popAsyncReq()
{
    return m_requestQueue.pop(kPopWaitMs);
}

int CHttpServerWrapper::getAsyncQueueSize()
{
    return m_requestQueue.size();
}

bool CHttpServerWrapper::runAsyncReq(tagAsyncReq* req, ZRT_UINT64 nowMs)
{
    ZRT_UINT64 age = nowMs > req->ullEnqueueTime ? nowMs - req->ullEnqueueTime : 0;
    bool run = age <= kStaleJobMs;
    if (!run) {
        // A dropped destroy job is not retried: the time-out checks catch the
        // session later.
        HPW_LOGI("[timeDiff=%ld]Throw timeout request", static_cast<long>(age));
    } else {
        CHttpSessionMgr* sessions = singleton<CHttpSessionMgr>::instance();
        CHttpUnstandardSessionMgr* rawSessions = singleton<CHttpUnstandardSessionMgr>::instance();
        switch (req->iCmdType) {
        case ASYNC_HTTP_CREATE: sessions->processHttpCreate(req); break;
        case ASYNC_HTTP_PROCESS: sessions->processHttpProcess(req); break;
        case ASYNC_HTTP_DESTROY: sessions->processHttpDestroy(req); break;
        case ASYNC_UNSTANDARD_CREATE: rawSessions->processHttpUnstandardCreate(req); break;
        case ASYNC_UNSTANDARD_PROCESS: rawSessions->processHttpUnstandardProcess(req); break;
        case ASYNC_UNSTANDARD_DESTROY: rawSessions->processHttpUnstandardDestroy(req); break;
        case ASYNC_TALK_DESTROY: singleton<CAudioTalkSessionMgr>::instance()->processHttpTalkDestroy(req); break;
        default: HPW_LOGE(HPW_ERR_NOT_SUPPORTED, "[cmdType=%d]Http request type not support!", req->iCmdType); break;
        }
    }
    delete[] req->pData;
    req->pData = nullptr;
    return run;
}

void* CHttpServerWrapper::fnAsynProcessThread(void* server)
{
    CHttpServerWrapper* self = static_cast<CHttpServerWrapper*>(server);
    if (self == nullptr) {
        HPW_LOGE(HPW_ERR_PARAM, "Asyn http process thread parameter error");
        return nullptr;
    }
    while (self->m_iRunning != 0) {
        tagAsyncReq* req = self->popAsyncReq();
        if (req == nullptr) {
            continue;
        }
        if (self->m_iRunning == 0) {
            CAsyncRequestQueue::freeJob(req);
            break;
        }
        self->runAsyncReq(req, hpwTickMs());
        delete req;
    }
    HPW_LOGD("Aysn http process thread exit!");  // spelt as operators search for it (Q18)
    return nullptr;
}

void* CHttpServerWrapper::fnTimeoutCheckThread(void* server)
{
    CHttpServerWrapper* self = static_cast<CHttpServerWrapper*>(server);
    if (self == nullptr) {
        HPW_LOGE(HPW_ERR_PARAM, "timeout check thread parameter error");
        return nullptr;
    }
    while (self->m_iRunning != 0) {
        singleton<CHttpSessionMgr>::instance()->timeOutCheck();
        singleton<CHttpUnstandardSessionMgr>::instance()->timeOutCheck();
        singleton<CAudioTalkSessionMgr>::instance()->timeOutCheck();
        for (int i = 0; i < self->m_iTimeoutCheckSleeps && self->m_iRunning != 0; ++i) {
            ZRT_Sleep(kTimeoutCheckSleepMs);
        }
    }
    HPW_LOGD("Http timeout check thread eixt!");  // spelt as operators search for it (Q18)
    return nullptr;
}

}  // namespace HttpWrapper
