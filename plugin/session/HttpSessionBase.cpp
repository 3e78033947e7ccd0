#include "session/HttpSessionBase.h"

#include <stdio.h>
#include <string.h>

#include "auth/DigestHeader.h"
#include "errors/RestErrorCodes.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "session/HttpSessionMgr.h"
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
    : CRtspConnection(filterChain, serverSink)
{
    memset(m_streamInfo, 0, sizeof m_streamInfo);
    memset(&m_requestParam, 0, sizeof m_requestParam);
}

// The gateway's stream is closed by fini, never here.
CHttpSessionBase::~CHttpSessionBase() = default;

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

    if (!parseRequest(text, needAuth)) {
        return 0;
    }

    PROTOCOL_FILTER::IProtocolRequestLine* line = m_request.GetProtocolRequestLine();
    std::string url = line->GetProtocolURL();
    // Q2, Q3: the gateway matches requests by this shortened name.
    std::string name;
    if (CutDigestUserName(m_strAuthorization, "username=\"", name) == USER_NAME_FOUND) {
        url += "&username=" + name;
    }
    line->SetProtocolURL(url.c_str());

    int result = filterRequest();
    if (result != 0) {
        return result;
    }

    if (singleton<CHttpSessionMgr>::instance()->getDownloadNum() >= kMaxDownloads) {
        HPW_LOGE(kRestReachDownloadLimit, "Download reach max number, pszUrl == %s", m_strPlaybackURI.c_str());
        SetErrorCode(static_cast<int>(kRestReachDownloadLimit));
        SetStatusCode(500);
        return static_cast<int>(kRestReachDownloadLimit);
    }

    return openStream(this, &m_pSessionHandle, text, m_strPlaybackURI);
}

}  // namespace HttpWrapper
