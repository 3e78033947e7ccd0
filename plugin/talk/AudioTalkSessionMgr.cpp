#include "talk/AudioTalkSessionMgr.h"

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
    if (m_sessions.add(url, std::move(session))) {
        return 0;
    }
    HPW_LOGE(HPW_ERR_TALK_EXISTS, "[url = %s]talk already opened", url.c_str());
    return -1;
}

std::shared_ptr<CQumexAudioTalkSession> CAudioTalkSessionMgr::removeSession(std::string& url)
{
    return m_sessions.remove(url);
}

std::shared_ptr<CQumexAudioTalkSession> CAudioTalkSessionMgr::getSession(std::string& url)
{
    return m_sessions.get(url);
}

int CAudioTalkSessionMgr::checkSession(std::string& url, std::string& sessionId)
{
    std::shared_ptr<CQumexAudioTalkSession> talk = m_sessions.get(url);
    if (!talk) {
        return -1;
    }
    // An empty id is accepted without comparison: clients that never learnt the
    // id (the close request, older audio clients) still reach their talk.
    if (sessionId.empty()) {
        return 0;
    }
    return talk->getTalkSessionId() == sessionId ? 0 : -1;
}

unsigned int CAudioTalkSessionMgr::getTalkSessionCount()
{
    return static_cast<unsigned int>(m_sessions.size());
}

void CAudioTalkSessionMgr::timeOutCheck()
{
    // The counters are left as they are: every later pass pushes another
    // destroy until the talk is gone.
    auto idle = [](const std::string& url, CQumexAudioTalkSession& talk) {
        int deviceIdle = talk.getTimeoutCount();
        int clientIdle = talk.getRecvTimeoutCount();
        if (static_cast<unsigned int>(deviceIdle) < kIdlePasses &&
            static_cast<unsigned int>(clientIdle) < kIdlePasses) {
            return false;
        }
        HPW_LOGD("[strMediaUrl = %s, getTimeoutCount() = %d, getRecvTimeoutCount = %d]device timeOutCheck", url.c_str(),
                 deviceIdle, clientIdle);
        return true;
    };
    m_sessions.agePass(idle, [](CQumexAudioTalkSession& talk) {
        talk.increaseTimeoutCount();
        talk.increaseRecvTimeoutCount();
    });
}

int CAudioTalkSessionMgr::processHttpTalkDestroy(tagAsyncReq* req)
{
    if (req == nullptr || req->iCmdType != ASYNC_TALK_DESTROY) {
        HPW_LOGE(HPW_ERR_PARAM, "Http process parameter error");
        return HPW_ERR_PARAM;
    }
    // A destroy job names the talk it was made for: a later talk opened on the
    // same channel is not the one a stale job (a second time-out pass, a late
    // end of stream) meant.
    std::shared_ptr<CQumexAudioTalkSession> session = m_sessions.take(req->strKey, req->ullSessionSerial);
    if (!session) {
        HPW_LOGE(HPW_ERR_SESSION_NOT_FOUND, "Http talk session not found!");
        return HPW_ERR_SESSION_NOT_FOUND;
    }
    // Outside the table mutex: stop closes links and calls into the gateway.
    return session->stop();
}

void CAudioTalkSessionMgr::closeAll()
{
    for (auto& entry : m_sessions.takeAll()) {
        HPW_LOGD("[strMediaUrl = %s]talk closed with the server", entry.first.c_str());
        entry.second->stop();
    }
}

}  // namespace HttpWrapper
