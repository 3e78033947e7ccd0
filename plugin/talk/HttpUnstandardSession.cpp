#include "talk/HttpUnstandardSession.h"

#include <stdio.h>
#include <string.h>

#include "auth/DigestHeader.h"
#include "errors/RestErrorCodes.h"
#include "frame/ErrorCodes.h"
#include "frame/FatalAssert.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "frame/SessionJobs.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/QumexAudioTalkSession.h"
#include "transport/IocpTcpTransmitter.h"

namespace HttpWrapper {

namespace {
const char kAudioDataPattern[] = "/QUMEX/System/TwoWayAudio/channels/%d/audioData";
const size_t kChallengeBuffer = 256;   // the whole challenge line is cut to fit, as it always was (Q5)
const size_t kMaxClientAddress = 128;  // as much of X-Forwarded-For as the standard port keeps

// The heads that open a handed-over link; static, since a send may complete
// after the session is gone.
const char kGetReplyHead[] = "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\n\r\n";
const char kPutReplyHead[] = "HTTP/1.1 200 OK\r\n\r\n";
const char kBadRequestReply[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

enum MethodCode { METHOD_GET = 0, METHOD_PUT = 1, METHOD_POST = 2, METHOD_DELETE = 3 };

void copyField(char* out, size_t size, const std::string& value)
{
    snprintf(out, size, "%s", value.c_str());
}

}  // namespace

CHttpUnstandardSession::CHttpUnstandardSession(PROTOCOL_FILTER::IProtocolFilter* filterChain,
                                               PROTOCOL_WRAPPER::IServerSink* serverSink)
    : CHttpSessionBase(filterChain, serverSink)
{
}

// fini has closed whatever the session still owned.
CHttpUnstandardSession::~CHttpUnstandardSession() = default;

int CHttpUnstandardSession::init(int socket)
{
    ZRT_Guard guard(m_lock);
    if (m_iState != SESSION_CREATED) {
        HPW_LOGE(HPW_ERR_STATUS, "Http unstandard session status error, status=%d", m_iState.load());
        return HPW_ERR_STATUS;
    }
    if (socket == -1) {
        HPW_LOGE(HPW_ERR_PARAM, "CHttpUnstandardSession init parameter error");
        return HPW_ERR_PARAM;
    }
    m_iConnSocketFd = socket;
    m_pTransmitter = new (std::nothrow) CIocpTcpTransmitter(singleton<CHttpServerWrapper>::instance()->getIocpHandle());
    if (m_pTransmitter == nullptr) {
        HPW_LOGE(HPW_ERR_NO_MEMORY, "new CIocpTcpTransmitter fail, errcode:%d", ZRT_GetSystemLastError());
        return HPW_ERR_NO_MEMORY;  // the caller's fini closes the socket
    }
    if (m_pTransmitter->Open(socket) != 0) {
        HPW_LOGE(HPW_ERR_ASYNC_QUEUE, "create iocp queue fail");
        // A failed Open has closed the socket already.
        m_iConnSocketFd = -1;
        fini();
        return HPW_ERR_ASYNC_QUEUE;
    }
    m_cycleBuffer.nSize = CYCLE_BUFFER_DEFAULT_SIZE;
    m_cycleBuffer.pBuf = m_pTransmitter->GetBuffer(m_cycleBuffer.nSize);
    if (m_cycleBuffer.pBuf == nullptr) {
        fini();
        HPW_LOGE(HPW_ERR_NO_MEMORY, "new CHttpUnstandardSession cycle buffer fail, errcode:%d",
                 ZRT_GetSystemLastError());
        return HPW_ERR_NO_MEMORY;
    }
    m_iState = SESSION_INITIALISED;
    return 0;
}

int CHttpUnstandardSession::fini()
{
    CIocpTcpTransmitter* transmitter;
    int socket;
    void* streamHandle = nullptr;
    {
        ZRT_Guard guard(m_lock);
        if (m_iState == SESSION_CLOSED) {
            HPW_LOGD("Http unstandard session duplicate fini, http socket=%d", m_iHandedSocket.load());
            return 0;
        }
        if (m_iState == SESSION_PROCESSED) {
            streamHandle = m_pSessionHandle;
        }
        transmitter = m_pTransmitter;
        m_pTransmitter = nullptr;
        socket = m_iConnSocketFd;
        m_iConnSocketFd = -1;
        m_iHandedSocket = -1;
        m_iState = SESSION_CLOSED;
    }
    // A gateway that answered the channel's request with a stream of its own
    // has it closed here.
    if (streamHandle != nullptr && m_pServerSink != nullptr) {
        m_pServerSink->OnStop(streamHandle, 0);
        m_pServerSink->OnClose(streamHandle);
    }
    // Outside the lock: Close waits for the receive callback, which takes it.
    if (transmitter != nullptr) {
        transmitter->Close();  // closes the socket
        delete transmitter;
    } else if (socket != -1) {
        ZRT_CloseSocket(socket, 0);
    }
    return 0;
}

int CHttpUnstandardSession::pushDestroyReq()
{
    tagAsyncReq job = SessionJob(ASYNC_UNSTANDARD_DESTROY, this);
    int socket = m_iConnSocketFd;
    job.iSocket = socket != -1 ? socket : m_iHandedSocket.load();
    PushDestroyOnce(m_iDestroyRequested, job);
    return 0;
}

void CHttpUnstandardSession::postReceive()
{
    ZRT_Guard guard(m_lock);
    if (m_pTransmitter == nullptr) {
        return;  // finished meanwhile
    }
    int space = m_cycleBuffer.nSize - m_cycleBuffer.nWrite;
    if (space <= 0 || m_pTransmitter->RecvData(m_cycleBuffer.pBuf + m_cycleBuffer.nWrite, space,
                                               reinterpret_cast<void*>(fnHttpUnstandardSessionRecv), this) != 0) {
        pushDestroyReq();
    }
}

int CHttpUnstandardSession::processRecvData(char* body, int length)
{
    ZRT_Guard guard(m_lock);
    if (m_iState != SESSION_INITIALISED) {
        HPW_LOGE(HPW_ERR_STATUS, "Http unstandard session status error, status=%d", m_iState.load());
        pushDestroyReq();
        return HPW_ERR_STATUS;
    }
    if (m_iRequestComplete == 0) {
        if (m_pTransmitter == nullptr) {
            HPW_FATAL_ASSERT("an initialised raw session has its transmitter", __FILE__, __LINE__, __PRETTY_FUNCTION__);
        }
        postReceive();
        return 0;
    }
    int result = processAuth();
    if (result != 0) {
        pushDestroyReq();
        return result;
    }
    switch (m_iMethodCode) {
    case METHOD_GET: result = processHttpGet(body, length); break;
    case METHOD_PUT: result = processHttpPut(body, length); break;
    case METHOD_POST: result = processHttpPost(body, length); break;
    case METHOD_DELETE: result = processHttpDelete(body, length); break;
    default:
        HPW_LOGE(HPW_ERR_NOT_SUPPORTED, "Http method not support, method = %d", m_iMethodCode);
        result = HPW_ERR_NOT_SUPPORTED;
        break;
    }
    // One request per connection, whatever became of it. After a hand-over the
    // destruction frees only this object.
    m_iState = SESSION_PROCESSED;
    pushDestroyReq();
    return result;
}

void CHttpUnstandardSession::fnHttpUnstandardSessionRecv(unsigned long error, unsigned long bytes, void* session)
{
    CHttpUnstandardSession* self = static_cast<CHttpUnstandardSession*>(session);
    if (self == nullptr) {
        return;
    }
    if (error == ZRT_ASYNCIO_ABORTED) {
        self->postReceive();
        return;
    }
    if (error != 0 || bytes == 0) {
        // The client is gone: nothing is queued; the manager's time-out pass
        // removes the session, whose count is no longer reset.
        return;
    }
    CYCLE_BUFFER& buffer = self->m_cycleBuffer;
    buffer.nWrite += static_cast<int>(bytes);
    self->m_iTimeoutCount.store(0);
    if (self->m_iRequestComplete != 0) {
        HPW_LOGI("Receive unknown data, data len=%d", static_cast<int>(bytes));
        return;
    }
    if (self->m_parser.SimpleParse(buffer.pBuf + buffer.nRead,
                                   static_cast<unsigned int>(buffer.nWrite - buffer.nRead)) != 0) {
        // No request of the channel is larger than the parser's limit: one that
        // has not ended by then never will be a valid one.
        if (buffer.nWrite - buffer.nRead > CHttpParser::kMaxRequestSize) {
            self->sendRaw(kBadRequestReply);
            self->pushDestroyReq();
        } else {
            self->postReceive();
        }
        return;
    }
    if (self->m_parser.Parse(buffer.pBuf + buffer.nRead, static_cast<unsigned int>(buffer.nWrite - buffer.nRead)) !=
        0) {
        // Too large, a bad request line or a malformed header: refused, and the
        // connection dropped.
        self->sendRaw(kBadRequestReply);
        self->pushDestroyReq();
        return;
    }
    self->m_iRequestComplete = 1;
    self->buildHttpReqParam();
    // Last: once the request is handled the session may be destroyed on a worker.
    self->processRecvData(nullptr, 0);
}

void CHttpUnstandardSession::buildHttpReqParam()
{
    ZRT_Guard guard(m_lock);
    std::string url = m_parser.getURL();
    std::string method = m_parser.getMethod();
    copyField(m_requestParam.szUrl, sizeof m_requestParam.szUrl, url);
    if (method == "GET") {
        m_iMethodCode = METHOD_GET;
    } else if (method == "PUT") {
        m_iMethodCode = METHOD_PUT;
    } else if (method == "POST") {
        m_iMethodCode = METHOD_POST;
    } else if (method == "DELETE") {
        m_iMethodCode = METHOD_DELETE;
    }
    m_requestParam.iMethod = m_iMethodCode;

    // The raw channel reads Digest fields with its own split on "," (Q5), as its
    // clients have always been read; the HTTP server library's parser serves
    // the standard port only and is not the plug-in's to call.
    std::string authorization;
    if (!FindAuthorizationLine(m_parser.getHeader(), authorization)) {
        return;
    }
    m_bHasAuthorization = true;
    ReadDigestFields(authorization, m_digestFields);
    copyField(m_requestParam.szUserName, sizeof m_requestParam.szUserName, m_digestFields["username"]);
    copyField(m_requestParam.szRealm, sizeof m_requestParam.szRealm, m_digestFields["realm"]);
    copyField(m_requestParam.szNonce, sizeof m_requestParam.szNonce, m_digestFields["nonce"]);
    copyField(m_requestParam.szUri, sizeof m_requestParam.szUri, m_digestFields["uri"]);
    copyField(m_requestParam.szResponse, sizeof m_requestParam.szResponse, m_digestFields["response"]);
}

int CHttpUnstandardSession::processAuth()
{
    ZRT_Guard guard(m_lock);
    if (m_iState == SESSION_CLOSED) {
        HPW_LOGE(HPW_ERR_STATUS, "Http processAuth order error");
        return HPW_ERR_STATUS;
    }
    if (!m_bHasAuthorization || m_requestParam.szUserName[0] == '\0' || m_requestParam.szRealm[0] == '\0' ||
        m_requestParam.szNonce[0] == '\0') {
        // The challenge line ends in a blank line followed by the reply text so
        // far (none yet), so the document's head carries an extra empty line:
        // the audio clients have always received the challenge in this form (Q5).
        std::string challenge =
            ("WWW-Authenticate: " + MakeDigestChallenge(m_httpHelper) + "\r\n\r\n" + m_strReply.c_str())
                .substr(0, kChallengeBuffer - 1);
        replyXml(kRestBadAuthorization, challenge);
        return HPW_ERR_AUTH;
    }
    switch (m_iMethodCode) {
    case METHOD_GET: m_strMethod = "GET"; break;
    case METHOD_PUT: m_strMethod = "PUT"; break;
    case METHOD_POST: m_strMethod = "POST"; break;
    case METHOD_DELETE: m_strMethod = "DELETE"; break;
    default: HPW_LOGE(HPW_ERR_NOT_SUPPORTED, "Unknown method, method=%d", m_iMethodCode); break;
    }
    m_strAuthorization = m_parser.getHttpHeadValue("Authorization");
    m_strClientIP = m_parser.getHttpHeadValue("X-Forwarded-For").substr(0, kMaxClientAddress);
    return 0;
}

int CHttpUnstandardSession::processHttpGet(char* body, int length)
{
    if (m_httpHelper.CheckUrlWithVariable(requestUrl(), kAudioDataPattern, 1)) {
        return processQumexAudioTalkGet(body, length);
    }
    replyXml(kRestInvalidOperation);
    return -1;
}

int CHttpUnstandardSession::processHttpPut(char* body, int length)
{
    if (m_httpHelper.CheckUrlWithVariable(requestUrl(), kAudioDataPattern, 1)) {
        return processQumexAudioTalkPut(body, length);
    }
    replyXml(kRestInvalidOperation);
    return -1;
}

int CHttpUnstandardSession::processHttpPost(char* body, int length)
{
    replyXml(kRestInvalidOperation);
    return -1;
}

int CHttpUnstandardSession::processHttpDelete(char* body, int length)
{
    replyXml(kRestInvalidOperation);
    return -1;
}

std::shared_ptr<CQumexAudioTalkSession> CHttpUnstandardSession::findTalk()
{
    std::string url = requestUrl();
    std::string sessionId;
    static const char kSessionIdKey[] = "sessionId=";
    size_t key = url.find(kSessionIdKey);
    if (key != std::string::npos) {
        size_t start = key + sizeof kSessionIdKey - 1;
        size_t end = url.find('&', start);
        sessionId = url.substr(start, end == std::string::npos ? std::string::npos : end - start);
    }
    // The talk's key, as the open request made it from the same Host.
    std::string host = m_parser.getHttpHeadValue("Host");
    size_t colon = host.find(':');
    std::string port = colon == std::string::npos ? std::string("80") : host.substr(colon + 1);
    size_t audioData = url.find("audioData");
    std::string talkUrl = url.substr(0, audioData == std::string::npos || audioData == 0 ? 0 : audioData - 1);
    talkUrl += "?indexType=httpPort&httpPort=" + port;

    m_strPlaybackURI = talkUrl;
    int result = convertToRtspProcess(true);
    if (result != HPW_ERR_TALK_URL) {
        replyXml(talkRefusalError());
        return nullptr;
    }
    // The talk accepts a link without an id (its older clients never learnt
    // one), unless the server URL asks for the id: then any talk of a channel
    // is reached only by who was told its id.
    CAudioTalkSessionMgr* talks = singleton<CAudioTalkSessionMgr>::instance();
    const bool idMissing =
        sessionId.empty() && singleton<CHttpServerWrapper>::instance()->options().requireTalkSessionId;
    if (idMissing || talks->checkSession(talkUrl, sessionId) != 0) {
        replyXml(kRestInvalidOperation);
        return nullptr;
    }
    std::shared_ptr<CQumexAudioTalkSession> talk = talks->getSession(talkUrl);
    if (!talk) {
        replyXml(kRestInternalError);
    }
    return talk;
}

int CHttpUnstandardSession::processQumexAudioTalkGet(char* body, int length)
{
    std::shared_ptr<CQumexAudioTalkSession> talk = findTalk();
    if (!talk) {
        return -1;
    }
    sendRaw(kGetReplyHead);
    // The head goes out before any device audio: sends on one socket keep
    // their posting order.
    if (!talk->setClientUploadLink(m_pTransmitter, m_iConnSocketFd)) {
        return -1;  // the talk stopped meanwhile: fini closes the connection
    }
    m_pTransmitter = nullptr;
    m_iHandedSocket = m_iConnSocketFd.load();
    m_iConnSocketFd = -1;
    return 0;
}

int CHttpUnstandardSession::processQumexAudioTalkPut(char* body, int length)
{
    std::shared_ptr<CQumexAudioTalkSession> talk = findTalk();
    if (!talk) {
        return -1;
    }
    sendRaw(kPutReplyHead);
    // Audio that arrived with the request stays, moved to the buffer's front.
    int headLength = m_parser.GetHeadLen();
    int following = m_cycleBuffer.nWrite - headLength;
    if (following > 0) {
        memmove(m_cycleBuffer.pBuf, m_cycleBuffer.pBuf + headLength, static_cast<size_t>(following));
    }
    m_cycleBuffer.nWrite = following > 0 ? following : 0;
    m_cycleBuffer.nRead = 0;
    talk->setRecvBuffer(&m_cycleBuffer);
    if (!talk->setClientDownloadLink(m_pTransmitter, m_iConnSocketFd)) {
        return -1;
    }
    m_pTransmitter = nullptr;
    m_iHandedSocket = m_iConnSocketFd.load();
    m_iConnSocketFd = -1;
    return 0;
}

int CHttpUnstandardSession::send(int index, int dataType, void* data, int length)
{
    return -1;
}

int CHttpUnstandardSession::sendRaw(const std::string& reply)
{
    ZRT_Guard guard(m_lock);
    if (m_pTransmitter == nullptr) {
        return -1;
    }
    m_strReply = reply;
    return m_pTransmitter->SendData(&m_strReply[0], static_cast<int>(m_strReply.size()), nullptr, nullptr, 0);
}

int CHttpUnstandardSession::replyXml(unsigned int errorNo, const std::string& extraHeaders)
{
    return sendRaw(getHttpXmlResponse(errorNo, extraHeaders));
}

}  // namespace HttpWrapper
