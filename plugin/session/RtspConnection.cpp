#include "session/RtspConnection.h"

#include "frame/ErrorCodes.h"
#include "frame/Log.h"
#include "session/RtspStatus.h"

namespace HttpWrapper {

namespace {
// The log lines of these steps name the conversion they belong to, as they
// always have.
const char kStep[] = "convertToRtspProcess";
}  // namespace

int CRtspConnection::getStatusCodeRtspInt()
{
    return rtspStatusCode(GetStatusCode());
}

bool CRtspConnection::parseRequest(std::string& text, bool needAuth)
{
    if (m_request.ParseRequest(&text[0], static_cast<int>(text.size())) == 0) {
        // Reported through the error code only; callers go on (Q7). The log text is Q18's.
        HPW_LOGE_IN(kStep, HPW_ERR_RTSP_PARSE, "CovertToRtspProcess fail, cProtocolRequest ParseMsg fail, request:%s",
                    text.c_str());
        SetErrorCode(HPW_ERR_RTSP_PARSE);
        return false;
    }
    m_request.setNeedAuth(needAuth);
    return true;
}

int CRtspConnection::filterRequest()
{
    int result = m_pProtocolFilterChain != nullptr ? m_pProtocolFilterChain->Request(&m_request, 0, this)
                                                   : static_cast<int>(HPW_ERR_NO_FILTER);
    if (result != 0) {
        // Also for an accepted talk (Q21); the text is Q18's.
        HPW_LOGE_IN(kStep, result, "CovertToRtspProcess fail, m_pProtocolFilterChainSink Request fail");
        SetErrorCode(result);
        SetStatusCode(getStatusCodeRtspInt());
    }
    return result;
}

int CRtspConnection::openStream(ISessionInterface* session, void** handle, const std::string& text,
                                const std::string& url)
{
    int result = m_pServerSink != nullptr ? m_pServerSink->OnOpen(GetFilterURL(), GetMediaURL(), session, handle)
                                          : static_cast<int>(HPW_ERR_NO_FILTER);
    if (result != 0) {
        HPW_LOGE_IN(kStep, result, "m_pServerSink OnOpen fail, pszUrl == %s", text.c_str());
        SetErrorCode(result);
        SetStatusCode(500);
        return result;
    }
    HPW_LOGD_IN(kStep, "OnOpen success, SessionHandle[%p], pszUrl=%s", *handle, url.c_str());

    result = m_pServerSink->pushStream(*handle);
    if (result != 0) {
        HPW_LOGE_IN(kStep, result, "m_pServerSink pushStream fail, pszUrl == %s", text.c_str());
        SetErrorCode(result);
        SetStatusCode(500);
        return result;
    }
    m_pServerSink->OnStart(*handle, 0);
    return 0;
}

}  // namespace HttpWrapper
