// Lifecycle and dispatch of a standard HTTP session.
#include "session/HttpSession.h"

#include <exception>

#include "errors/RestErrorCodes.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "frame/SessionJobs.h"
#include "session/HttpSessionMgr.h"

namespace HttpWrapper {

namespace {
const char kDownloadUrl[] = "/QUMEX/ContentMgmt/download";
const char kJsonFormatQuery[] = "?format=json";
const char kTalkOpenUrl[] = "/QUMEX/System/TwoWayAudio/channels/%d/open";
const char kTalkCloseUrl[] = "/QUMEX/System/TwoWayAudio/channels/%d/close";
}  // namespace

CHttpSession::CHttpSession(PROTOCOL_FILTER::IProtocolFilter* filterChain, PROTOCOL_WRAPPER::IServerSink* serverSink)
    : CHttpSessionBase(filterChain, serverSink)
{
}

CHttpSession::~CHttpSession() = default;

int CHttpSession::init(int httpHandle)
{
    ZRT_Guard guard(m_lock);
    if (m_iState != SESSION_CREATED) {
        HPW_LOGE(HPW_ERR_STATUS, "Http session status error, status=%d", m_iState.load());
        return HPW_ERR_STATUS;
    }
    if (static_cast<unsigned int>(httpHandle) < 0xFFFFFFFFu) {
        if (NET_HTTPSERVER_GetParamV2(httpHandle, NET_HTTPSERVER_GET_REQUEST, NET_HTTPSERVER_SUB_PARAMS, nullptr, 0,
                                      &m_requestParam, static_cast<int>(sizeof m_requestParam)) != 0) {
            HPW_LOGE(HPW_ERR_NETUTILS, "Get http request parameter fail");
            return HPW_ERR_NETUTILS;
        }
        m_iHttpHandle = httpHandle;
    }
    m_iState = SESSION_INITIALISED;
    return 0;
}

int CHttpSession::processRecvData(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    if (m_iState != SESSION_INITIALISED) {
        HPW_LOGE(HPW_ERR_STATUS, "Http session status error, status=%d", m_iState.load());
        return HPW_ERR_STATUS;
    }
    int result = processAuth();
    if (result != 0) {
        return result;  // the challenge is out; the session stays initialised
    }
    switch (m_requestParam.iMethod) {
    case NET_HTTP_METHOD_GET: result = processHttpGet(body, length); break;
    case NET_HTTP_METHOD_PUT: result = processHttpPut(body, length); break;
    case NET_HTTP_METHOD_POST: result = processHttpPost(body, length); break;
    case NET_HTTP_METHOD_DELETE: result = processHttpDelete(body, length); break;
    default:
        HPW_LOGE(HPW_ERR_NOT_SUPPORTED, "Http method not support, method = %d", m_requestParam.iMethod);
        result = HPW_ERR_NOT_SUPPORTED;
        break;
    }
    m_iState = SESSION_PROCESSED;
    return result;
}

int CHttpSession::processHttpGet(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    std::string url = requestUrl();
    url = url.substr(0, url.find('?'));
    if (m_httpHelper.CompareUrl(url, kDownloadUrl) == 0) {
        return processQumexDownloadRequest(body, length);
    }
    m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestInvalidOperation);
    return -1;
}

int CHttpSession::processHttpPut(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    try {
        const char* url = requestUrl();
        if (m_httpHelper.CheckUrlWithVariable(url, kTalkOpenUrl, 1)) {
            return processQumexAudioTalkOpen(body, length);
        }
        if (m_httpHelper.CheckUrlWithVariable(url, kTalkCloseUrl, 1)) {
            return processQumexAudioTalkClose(body, length);
        }
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestInvalidOperation);
        return -1;
    } catch (const std::exception&) {
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadJsonFormat);
        return -1;
    }
}

int CHttpSession::processHttpPost(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    try {
        std::string url = requestUrl();
        if (!m_httpHelper.IsJsonURL(url.c_str())) {
            m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadUrlFormat);
            return -1;
        }
        // Unlike GET, POST compares exactly after cutting at "?format=json".
        url = url.substr(0, url.find(kJsonFormatQuery));
        if (url == kDownloadUrl) {
            return processDownloadRequest(body, length);
        }
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestInvalidOperation);
        return -1;
    } catch (const std::exception&) {
        m_errorHandler.RenderJSONResponseStatus(m_iHttpHandle, kRestBadJsonFormat);
        return -1;
    }
}

int CHttpSession::processHttpDelete(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    return sendHead(403);
}

int CHttpSession::fini()
{
    ZRT_Guard guard(m_lock);
    if (m_iState == SESSION_CLOSED) {
        HPW_LOGD("Http session duplicate fini, http handle=%d", m_iHttpHandle.load());
        return 0;
    }
    // Closing before the gateway is told to stop: its delivery thread may be
    // inside sendStream, retrying a reply, and OnStop waits for that thread.
    // A file the server delivers ends first, so the gateway hears of its end
    // before OnStop.
    m_bClosing = true;
    endDelivery();
    if (m_iState == SESSION_PROCESSED && m_pSessionHandle != nullptr && m_pServerSink != nullptr) {
        m_pServerSink->OnStop(m_pSessionHandle, 0);
        m_pServerSink->OnClose(m_pSessionHandle);
    }
    int handle = m_iHttpHandle;
    singleton<CHttpSessionMgr>::instance()->addInvalidHandle(handle);
    HPW_LOGD("Http session closed, handle=%d", handle);
    m_iHttpHandle = -1;
    m_iState = SESSION_CLOSED;
    if (m_iDownloadCounted != 0) {
        singleton<CHttpSessionMgr>::instance()->decreaseDownloadNum();
    }
    return 0;
}

int CHttpSession::pushDestroyReq()
{
    tagAsyncReq job = SessionJob(ASYNC_HTTP_DESTROY, this);
    job.lHttpHandle = m_iHttpHandle;
    PushDestroyOnce(m_iDestroyRequested, job);
    return 0;
}

}  // namespace HttpWrapper
