// Two-way audio open and close on the standard port: PUT of
// ".../TwoWayAudio/channels/<n>/open" checks the request with the gateway,
// creates and starts the talk, registers it under its talk URL and answers its
// session id; ".../close" stops and removes it. The audio itself then flows
// over the raw audio channel.
#include <string>

#include "errors/RestErrorCodes.h"
#include "errors/XmlNamespaces.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "frame/NewSession.h"
#include "session/HttpSession.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/QumexAudioTalkSession.h"
#include "xml/mkTinyXMLConverter.h"

namespace HttpWrapper {

namespace {
const unsigned int kMaxTalks = 100;

// The request URL up to the "/" before the last occurrence of word: the
// channel's part of ".../channels/<n>/open".
std::string cutBeforeLast(const std::string& url, const char* word)
{
    size_t found = url.rfind(word);
    if (found == std::string::npos) {
        return url;
    }
    size_t slash = found == 0 ? std::string::npos : url.rfind('/', found - 1);
    return slash == std::string::npos ? url.substr(0, found) : url.substr(0, slash);
}
}  // namespace

int CHttpSession::talkUrlOfRequest(const char* verb, std::string& address, int& port)
{
    m_strPlaybackURI = cutBeforeLast(requestUrl(), verb);
    if (m_httpHelper.getRecvAddress(m_iHttpHandle, address, port) != 0) {
        HPW_LOGE(HPW_ERR_NETUTILS, "get http receive port fail");
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestInternalError);
        return -1;
    }
    // The same text keys the talk in the manager, so the open and the close of
    // a channel, and the audio channel's requests, meet on the Host's port.
    m_strPlaybackURI += "?indexType=httpPort&httpPort=" + std::to_string(port);
    return 0;
}

int CHttpSession::checkTalkWithGateway()
{
    // The gateway answers an accepted talk request with this code: the
    // conversion stops at the filter chain, and no stream is opened here. It
    // logs the answer as a failure (Q21).
    int result = convertToRtspProcess(true);
    if (result == HPW_ERR_TALK_URL) {
        return 0;
    }
    m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, talkRefusalError());
    return -1;
}

int CHttpSession::processQumexAudioTalkOpen(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    std::string address;
    int port = 0;
    if (talkUrlOfRequest("open", address, port) != 0 || checkTalkWithGateway() != 0) {
        return -1;
    }
    CAudioTalkSessionMgr* talks = singleton<CAudioTalkSessionMgr>::instance();
    if (talks->getTalkSessionCount() >= kMaxTalks) {
        HPW_LOGW(HPW_ERR_TALK_LIMIT, "Audio talk reach max number");
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestReachTalkLimit);
        return -1;
    }

    std::string sessionId = std::to_string(static_cast<unsigned int>(ZRT_Rand()));
    std::shared_ptr<CQumexAudioTalkSession> talk =
        NewSession<CQumexAudioTalkSession>(m_pProtocolFilterChain, m_pServerSink);
    if (!talk) {
        HPW_LOGE(HPW_ERR_NO_MEMORY, "new CQumexAudioTalkSession failed, errcode:%d", ZRT_GetSystemLastError());
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestInternalError);
        return HPW_ERR_NO_MEMORY;
    }
    talk->setTalkSessionId(sessionId);
    talk->setRtspUrl(m_strPlaybackURI);
    talk->setAddress(address, port);
    talk->setUsername(m_strUserName);
    if (talks->addSession(m_strPlaybackURI, talk) != 0) {
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestInvalidOperation);
        return -1;
    }
    if (talk->start() != 0) {
        talk->stop();
        talks->removeSession(m_strPlaybackURI);
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestInternalError);
        return -1;
    }

    CmkTinyXMLConverter xml;
    xml.AddElem("TwoWayAudioSession");
    xml.AddAttrib("version", "2.0");
    xml.AddAttrib("xmlns", XMLNS_AUDIO_API_2_0);
    xml.IntoElem();
    xml.AddElem("sessionId", sessionId.c_str());
    std::string document = xml.GetDoc();
    m_ullFileLen = document.size();
    if (sendReply(200, document.c_str(), static_cast<int>(document.size()), "xml") == -1) {
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestInternalError);
        talk->stop();
        talks->removeSession(m_strPlaybackURI);
        return -1;
    }
    HPW_LOGI("[url = %s, sessionId = %s, user = %s]audio talk opened", m_strPlaybackURI.c_str(), sessionId.c_str(),
             m_strUserName.c_str());
    return 0;
}

int CHttpSession::processQumexAudioTalkClose(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    std::string address;
    int port = 0;
    if (talkUrlOfRequest("close", address, port) != 0 || checkTalkWithGateway() != 0) {
        return -1;
    }
    CAudioTalkSessionMgr* talks = singleton<CAudioTalkSessionMgr>::instance();
    std::string anyId;
    if (talks->checkSession(m_strPlaybackURI, anyId) != 0) {
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestBadParameters);
        return -1;
    }
    std::shared_ptr<CQumexAudioTalkSession> talk = talks->getSession(m_strPlaybackURI);
    if (talk) {
        talk->stop();
    }
    if (!talks->removeSession(m_strPlaybackURI)) {
        m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestInvalidOperation);
        return -1;
    }
    HPW_LOGI("[url = %s]audio talk closed", m_strPlaybackURI.c_str());
    m_errorHandler.renderXMLResponseStatus(m_iHttpHandle, kRestSuccess);
    return 0;
}

}  // namespace HttpWrapper
