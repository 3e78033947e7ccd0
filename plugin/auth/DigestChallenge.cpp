// The authentication gate of a standard session. Credentials are never checked
// here: Digest credentials are forwarded raw inside the RTSP request for the
// gateway's filter chain to judge; a request without them gets the challenge.
#include <string.h>

#include "auth/DigestHeader.h"
#include "errors/HttpErrorHandler.h"
#include "frame/ErrorCodes.h"
#include "frame/Log.h"
#include "session/HttpSession.h"

namespace HttpWrapper {

namespace {
const size_t kAuthorizationBuffer = 1024;
const size_t kForwardedForBuffer = 129;
const size_t kChallengeBuffer = 256;  // the challenge's value is cut to fit, as it always was (Q4)

std::string readHeader(int handle, const char* name, size_t bufferSize)
{
    std::string value(bufferSize, '\0');
    if (NET_HTTPSERVER_GetParamV2(handle, NET_HTTPSERVER_GET_REQUEST, NET_HTTPSERVER_SUB_HEADER, name,
                                  static_cast<int>(strlen(name)), &value[0], static_cast<int>(bufferSize)) != 0) {
        return std::string();  // an absent header leaves the field empty
    }
    value.resize(strlen(value.c_str()));
    return value;
}
}  // namespace

int CHttpSession::processAuth()
{
    ZRT_Guard guard(m_lock);
    if (m_iState == SESSION_CLOSED) {
        HPW_LOGE(HPW_ERR_STATUS, "Http processAuth order error");
        return HPW_ERR_STATUS;
    }
    int handle = m_iHttpHandle;
    bool hasCredentials = m_requestParam.szUserName[0] != '\0' && m_requestParam.szRealm[0] != '\0' &&
                          m_requestParam.szNonce[0] != '\0' && m_requestParam.szResponse[0] != '\0';
    if (hasCredentials) {
        switch (m_requestParam.iMethod) {
        case NET_HTTP_METHOD_GET: m_strMethod = "GET"; break;
        case NET_HTTP_METHOD_PUT: m_strMethod = "PUT"; break;
        case NET_HTTP_METHOD_POST: m_strMethod = "POST"; break;
        case NET_HTTP_METHOD_DELETE: m_strMethod = "DELETE"; break;
        default:
            // Processing goes on with the method text as it was.
            HPW_LOGE(HPW_ERR_NOT_SUPPORTED, "Unknown method, method=%d", m_requestParam.iMethod);
            break;
        }
        m_strAuthorization = readHeader(handle, "Authorization", kAuthorizationBuffer);
        std::string name;
        m_parser.getAuthName(name, m_strAuthorization);  // its result does not stop the request
        m_strUserName = name.c_str();
        m_strClientIP = readHeader(handle, "X-Forwarded-For", kForwardedForBuffer);
        return 0;
    }

    // The staging and the reply are not checked: the session is released by the
    // manager either way.
    std::string challenge = MakeDigestChallenge(m_httpHelper).substr(0, kChallengeBuffer - 1);
    CHttpErrorHandler::renderChallenge(handle, challenge);
    return HPW_ERR_AUTH;
}

}  // namespace HttpWrapper
