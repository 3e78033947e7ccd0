#include "talk/AudioTalkSessionMgr.h"

#include <vector>

#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "talk/QumexAudioTalkSession.h"

namespace HttpWrapper {

CAudioTalkSessionMgr::CAudioTalkSessionMgr() = default;

CAudioTalkSessionMgr::~CAudioTalkSessionMgr() = default;

int CAudioTalkSessionMgr::start(const char* url, PROTOCOL_WRAPPER::IServerSink* sink)
{
    if (sink == nullptr) {
        HPW_LOGE(HPW_ERR_PARAM, "CAudioTalkSessionMgr start failed, pServerSink is NULL");
        return HPW_ERR_PARAM;
    }
    m_pServerSink = sink;
    m_iRunning = 1;
    m_iStarted = 1;
    return 0;
}

int CAudioTalkSessionMgr::stop()
{
    if (m_iRunning != 0) {
        m_iRunning = 0;
        m_iStarted = 0;
    }
    return 0;
}

int CAudioTalkSessionMgr::setProtocolFilterChain(PROTOCOL_FILTER::IProtocolFilter* chain)
{
    m_pProtocolFilterChain = chain;
    return 0;
}

int CAudioTalkSessionMgr::addSession(std::string& url, std::shared_ptr<CQumexAudioTalkSession> session)
{
    {
        ZRT_Guard guard(m_mutex);
        if (m_sessions.find(url) == m_sessions.end()) {
            m_sessions[url] = std::move(session);
            return 0;
        }
    }
    HPW_LOGE(HPW_ERR_TALK_EXISTS, "[url = %s]talk already opened", url.c_str());
    return -1;
}

std::shared_ptr<CQumexAudioTalkSession> CAudioTalkSessionMgr::removeSession(std::string& url)
{
    ZRT_Guard guard(m_mutex);
    auto found = m_sessions.find(url);
    if (found == m_sessions.end()) {
        return std::shared_ptr<CQumexAudioTalkSession>();
    }
    std::shared_ptr<CQumexAudioTalkSession> session = std::move(found->second);
    m_sessions.erase(found);
    return session;
}

std::shared_ptr<CQumexAudioTalkSession> CAudioTalkSessionMgr::getSession(std::string& url)
{
    ZRT_Guard guard(m_mutex);
    auto found = m_sessions.find(url);
    return found == m_sessions.end() ? std::shared_ptr<CQumexAudioTalkSession>() : found->second;
}

int CAudioTalkSessionMgr::checkSession(std::string& url, std::string& sessionId)
{
    ZRT_Guard guard(m_mutex);
    auto found = m_sessions.find(url);
    if (found == m_sessions.end()) {
        return -1;
    }
    // An empty id is accepted without comparison: clients that never learnt the
    // id (the close request, older audio clients) still reach their talk.
    if (sessionId.empty()) {
        return 0;
    }
    return found->second->getTalkSessionId() == sessionId ? 0 : -1;
}

unsigned int CAudioTalkSessionMgr::getTalkSessionCount()
{
    ZRT_Guard guard(m_mutex);
    return static_cast<unsigned int>(m_sessions.size());
}

void CAudioTalkSessionMgr::timeOutCheck()
{
    // Pushing while holding the table mutex is allowed: the queue's mutex is
    // always taken inside it, never the other way round.
    ZRT_Guard guard(m_mutex);
    for (auto& entry : m_sessions) {
        CQumexAudioTalkSession* session = entry.second.get();
        unsigned int deviceIdle = static_cast<unsigned int>(session->getTimeoutCount());
        unsigned int clientIdle = static_cast<unsigned int>(session->getRecvTimeoutCount());
        if (deviceIdle >= kIdlePasses || clientIdle >= kIdlePasses) {
            // The counters are left as they are: every later pass pushes another
            // destroy until the talk is gone.
            tagAsyncReq req;
            req.iCmdType = ASYNC_TALK_DESTROY;
            req.strKey = entry.first;
            req.pSession = session;
            HPW_LOGD("[strMediaUrl = %s, getTimeoutCount() = %d, getRecvTimeoutCount = %d]device timeOutCheck",
                     entry.first.c_str(), static_cast<int>(deviceIdle), static_cast<int>(clientIdle));
            singleton<CHttpServerWrapper>::instance()->pushAsyncReq(&req);
        } else {
            session->increaseTimeoutCount();
            session->increaseRecvTimeoutCount();
        }
    }
}

int CAudioTalkSessionMgr::processHttpTalkDestroy(tagAsyncReq* req)
{
    if (req == nullptr || req->iCmdType != ASYNC_TALK_DESTROY) {
        HPW_LOGE(HPW_ERR_PARAM, "Http process parameter error");
        return HPW_ERR_PARAM;
    }
    std::shared_ptr<CQumexAudioTalkSession> session;
    {
        ZRT_Guard guard(m_mutex);
        auto found = m_sessions.find(req->strKey);
        // A destroy job names the talk it was made for: a later talk opened on
        // the same channel is not the one a stale job (a second time-out pass,
        // a late end of stream) meant.
        if (found != m_sessions.end() && (req->pSession == nullptr || req->pSession == found->second.get())) {
            session = std::move(found->second);
            m_sessions.erase(found);
        }
    }
    if (!session) {
        HPW_LOGE(HPW_ERR_SESSION_NOT_FOUND, "Http talk session not found!");
        return HPW_ERR_SESSION_NOT_FOUND;
    }
    // Outside the table mutex: stop closes links and calls into the gateway.
    return session->stop();
}

void CAudioTalkSessionMgr::closeAll()
{
    std::map<std::string, std::shared_ptr<CQumexAudioTalkSession>> sessions;
    {
        ZRT_Guard guard(m_mutex);
        sessions.swap(m_sessions);
    }
    for (auto& entry : sessions) {
        HPW_LOGD("[strMediaUrl = %s]talk closed with the server", entry.first.c_str());
        entry.second->stop();
    }
}

}  // namespace HttpWrapper
