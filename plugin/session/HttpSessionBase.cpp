#include "session/HttpSessionBase.h"

#include <stdio.h>
#include <string.h>

#include <json/json.h>

#include "auth/DigestUserName.h"
#include "errors/RestErrorCodes.h"
#include "errors/RestErrorTable.h"
#include "errors/XmlNamespaces.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "session/HttpSessionMgr.h"
#include "util/RequestText.h"
#include "util/StringUtils.h"
#include "xml/mkTinyXMLConverter.h"

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
    Json::Value status;
    unsigned int groupStatus = 200;
    getResponseStatusByErrorNo(errorNo, status, groupStatus);
    // The status line takes the HTTP status with the 401 exception for
    // "badAuthorization", so the challenge of the raw channel reads 401.
    unsigned int httpStatus = 200;
    getHttpStatusCodeByErrorNo(errorNo, httpStatus);

    CmkTinyXMLConverter xml;
    xml.AddElem("ResponseStatus", static_cast<const char*>(nullptr), 0);
    xml.AddAttrib("version", "2.0");
    xml.AddAttrib("xmlns", XMLNS_DEVICE_API_2_0);
    xml.IntoElem();
    xml.AddElem("requestURL", requestUrl(), 0);
    xml.AddElem("statusCode", status.isMember("statusCode") ? status["statusCode"].asInt() : 0, 0);
    xml.AddElem("statusString", status.isMember("statusString") ? status["statusString"].asCString() : "", 0);
    xml.AddElem("subStatusCode", status.isMember("subStatusCode") ? status["subStatusCode"].asCString() : "", 0);
    std::string document = xml.GetDoc();

    // The phrase text starts with the code itself, so the status line reads
    // "HTTP/1.1 401 401 Unauthorized": the doubled code is what clients of this
    // device API have always received.
    std::string response =
        "HTTP/1.1 " + std::to_string(httpStatus) + " " + m_httpHelper.getHTTPStatsStringByCode(httpStatus) + "\r\n";
    response += "Content-Length: " + std::to_string(document.size()) + "\r\n";
    response += "Content-Type: ";
    response += "application/xml\r\n";
    if (!extraHeaders.empty()) {
        response += extraHeaders + "\r\n";
    }
    response += "\r\n";
    response += document;
    return response;
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
    // "Download: 0" is sent for downloads too: the gateway's parser expects both.
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
