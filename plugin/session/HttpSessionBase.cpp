#include "session/HttpSessionBase.h"

#include <stdio.h>
#include <string.h>

#include "auth/DigestHeader.h"
#include "errors/RestErrorCodes.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "session/HttpSessionMgr.h"
#include "session/RtspStatus.h"
#include "util/RequestText.h"
#include "util/StringUtils.h"

namespace HttpWrapper {

namespace {
// The gateway refuses new downloads past this many running ones (the error is
// the device API's "reachDownloadLimit").
const int kMaxDownloads = 400;
}  // namespace

CHttpSessionBase::CHttpSessionBase(PROTOCOL_FILTER::IProtocolFilter* filterChain,
                                   PROTOCOL_WRAPPER::IServerSink* serverSink)
    : m_pServerSink(serverSink), m_pProtocolFilterChain(filterChain)
{
    memset(m_streamInfo, 0, sizeof m_streamInfo);
    memset(&m_requestParam, 0, sizeof m_requestParam);
}

// The gateway's stream is closed by fini, never here.
CHttpSessionBase::~CHttpSessionBase() = default;

int CHttpSessionBase::getStatusCodeRtspInt()
{
    return rtspStatusCode(GetStatusCode());
}

int CHttpSessionBase::getTimeoutCount()
{
    return m_iTimeoutCount.load();
}

int CHttpSessionBase::increaseTimeoutCount()
{
    ++m_iTimeoutCount;
    return 0;
}

std::string CHttpSessionBase::getHttpXmlResponse(unsigned int errorNo, const std::string& extraHeaders)
{
    return CHttpErrorHandler::getRawXMLResponse(errorNo, requestUrl(), extraHeaders);
}

bool CHttpSessionBase::clientTextIsSafe()
{
    // The client address needs no check: it is percent-escaped on its way in.
    const char* field = nullptr;
    if (!IsSafeRequestText(m_strPlaybackURI, SPACES_REFUSED)) {
        field = "the playback URI";
    } else if (!IsSafeRequestText(requestUrl(), SPACES_REFUSED)) {
        field = "the request target";
    } else if (!IsSafeRequestText(m_strAuthorization, SPACES_ALLOWED)) {
        field = "the Authorization value";
    }
    if (field == nullptr) {
        return true;
    }
    HPW_LOGE(kRestBadParameters, "Request refused, a control byte or a space in %s", field);
    SetErrorCode(static_cast<int>(kRestBadParameters));
    SetStatusCode(400);
    return false;
}

unsigned int CHttpSessionBase::talkRefusalError()
{
    if (GetStatusCode() == 401) {
        return kRestBadAuthorization;
    }
    const int error = GetErrorCode();
    const bool restError = (static_cast<unsigned int>(error) >> 28) != 0;
    return singleton<CHttpServerWrapper>::instance()->options().talkGatewayRefusal && restError
               ? static_cast<unsigned int>(error)
               : kRestInternalError;
}

int CHttpSessionBase::convertToRtspProcess(bool needAuth)
{
    const CServerOptions& options = singleton<CHttpServerWrapper>::instance()->options();
    if (options.checkRequestText && !clientTextIsSafe()) {
        return static_cast<int>(kRestBadParameters);
    }
    // "&clientIP=" is appended even without a "?" and with an empty address, and
    // "Download: 0" is sent for downloads too: the gateway's parser expects both (Q6).
    // The address is the client's own text (a proxy's list, or anything a
    // client writes): escaped, it stays one parameter of the URL.
    std::string text =
        m_strMethod + " " + m_strPlaybackURI + "&clientIP=" + EscapeClientAddress(m_strClientIP) + " RTSP/1.0\r\n";
    text += "CSeq: 1\r\n";
    text += "Accept: application/sdp\r\n";
    text += "Download: 0\r\n";
    text += "Authorization:" + m_strAuthorization + "\r\n";
    text += "User-Agent: httpClient\r\n";
    // After the standard heads, which gateways read as they always have.
    if (!m_strDownloadRange.empty()) {
        text += "Download-Range: " + m_strDownloadRange + "\r\n";
    }
    if (options.sendRequestTarget) {
        text += std::string("Request-Target: ") + requestUrl() + "\r\n";
    }
    text += "\r\n";

    if (m_request.ParseRequest(&text[0], static_cast<int>(text.size())) == 0) {
        // Reported through the error code only; callers go on (kept as the
        // gateway has always seen it, Q7). The log text is Q18's.
        HPW_LOGE(HPW_ERR_RTSP_PARSE, "CovertToRtspProcess fail, cProtocolRequest ParseMsg fail, request:%s",
                 text.c_str());
        SetErrorCode(HPW_ERR_RTSP_PARSE);
        return 0;
    }
    m_request.setNeedAuth(needAuth);

    PROTOCOL_FILTER::IProtocolRequestLine* line = m_request.GetProtocolRequestLine();
    std::string url = line->GetProtocolURL();
    // Q2, Q3: the gateway matches requests by this shortened name.
    std::string name;
    if (CutDigestUserName(m_strAuthorization, "username=\"", name) == USER_NAME_FOUND) {
        url += "&username=" + name;
    }
    line->SetProtocolURL(url.c_str());

    int result = m_pProtocolFilterChain != nullptr ? m_pProtocolFilterChain->Request(&m_request, 0, this)
                                                   : static_cast<int>(HPW_ERR_NO_FILTER);
    if (result != 0) {
        // Also for an accepted talk (Q21); the text is Q18's.
        HPW_LOGE(result, "CovertToRtspProcess fail, m_pProtocolFilterChainSink Request fail");
        SetErrorCode(result);
        SetStatusCode(getStatusCodeRtspInt());
        return result;
    }

    if (singleton<CHttpSessionMgr>::instance()->getDownloadNum() >= kMaxDownloads) {
        HPW_LOGE(kRestReachDownloadLimit, "Download reach max number, pszUrl == %s", m_strPlaybackURI.c_str());
        SetErrorCode(static_cast<int>(kRestReachDownloadLimit));
        SetStatusCode(500);
        return static_cast<int>(kRestReachDownloadLimit);
    }

    result = m_pServerSink != nullptr ? m_pServerSink->OnOpen(GetFilterURL(), GetMediaURL(),
                                                              static_cast<ISessionInterface*>(this), &m_pSessionHandle)
                                      : static_cast<int>(HPW_ERR_NO_FILTER);
    if (result != 0) {
        HPW_LOGE(result, "m_pServerSink OnOpen fail, pszUrl == %s", text.c_str());
        SetErrorCode(result);
        SetStatusCode(500);
        return result;
    }
    HPW_LOGD("OnOpen success, SessionHandle[%p], pszUrl=%s", m_pSessionHandle, m_strPlaybackURI.c_str());

    if (m_pServerSink == nullptr) {
        SetErrorCode(HPW_ERR_NO_FILTER);
        SetStatusCode(500);
        HPW_LOGE(HPW_ERR_NO_FILTER, "Proc rtsp play fail, m_pServerSink is NULL");
        return 0;
    }
    result = m_pServerSink->pushStream(m_pSessionHandle);
    if (result != 0) {
        HPW_LOGE(result, "m_pServerSink pushStream fail, pszUrl == %s", text.c_str());
        SetErrorCode(result);
        SetStatusCode(500);
        return result;
    }
    m_pServerSink->OnStart(m_pSessionHandle, 0);
    return 0;
}

}  // namespace HttpWrapper
