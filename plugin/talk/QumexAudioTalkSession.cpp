#include "talk/QumexAudioTalkSession.h"

#include <stdio.h>
#include <string.h>

#include <sstream>

#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "frame/Log.h"
#include "frame/SessionJobs.h"
#include "transport/IocpTcpTransmitter.h"
#include "util/RequestText.h"

namespace HttpWrapper {

namespace {
const char kTalkUrlPattern[] = "/QUMEX/System/TwoWayAudio/channels/%d/audioData";
const int kG711PacketSize = 160;   // 20 ms of PCMU or PCMA at 8 kHz
const int kNarrowPacketSize = 80;  // a G.722.1 frame, or 40 ms of G.726 at 16 kbit/s
// Device audio goes out as the gateway expects, without the transmitter's
// backlog limit, unless the server URL asks for it (checkTalkBacklog): then a
// client that stops reading its GET link loses the audio past the backlog
// (1500 packets of 20 ms by default) instead of growing the queue without end.
const int kSendWithoutLimit = 0;
const int kSendWithBacklogLimit = 1;
}  // namespace

CQumexAudioTalkSession::CQumexAudioTalkSession(PROTOCOL_FILTER::IProtocolFilter* filterChain,
                                               PROTOCOL_WRAPPER::IServerSink* serverSink)
    : CRtspConnection(filterChain, serverSink),
      m_iSendCheckLimit(singleton<CHttpServerWrapper>::instance()->options().checkTalkBacklog ? kSendWithBacklogLimit
                                                                                              : kSendWithoutLimit)
{
    memset(m_streamHeaders, 0, sizeof m_streamHeaders);
}

CQumexAudioTalkSession::~CQumexAudioTalkSession()
{
    stop();
    m_pServerSink = nullptr;
    m_pProtocolFilterChain = nullptr;
    m_pSinkHandle = nullptr;
}

int CQumexAudioTalkSession::setRtspUrl(std::string& url)
{
    ZRT_Guard guard(m_lock);
    m_strTalkUrl = url;
    return 0;
}

void CQumexAudioTalkSession::setTalkSessionId(std::string& id)
{
    ZRT_Guard guard(m_lock);
    m_strTalkSessionId = id;
}

std::string CQumexAudioTalkSession::getTalkSessionId()
{
    ZRT_Guard guard(m_lock);
    return m_strTalkSessionId;
}

void CQumexAudioTalkSession::setAddress(std::string& ip, int port)
{
    m_strAddress = ip;
    m_iPort = port;
}

void CQumexAudioTalkSession::setUsername(const std::string& name)
{
    m_strUserName = name;
}

int CQumexAudioTalkSession::start()
{
    ZRT_Guard guard(m_lock);
    int channel = -1;
    sscanf(m_strTalkUrl.c_str(), kTalkUrlPattern, &channel);
    std::string url = "rtsp://" + m_strAddress + ":" + std::to_string(m_iPort) + "/dac/talk/" +
                      std::to_string(channel) + "/TCP?indexType=httpPort&httpPort=" + std::to_string(m_iPort);
    // One whitespace-delimited token: an address with a blank cuts the URL there.
    std::string token;
    std::istringstream(url) >> token;
    int result = convertToRtspProcess(token);
    if (result == 0) {
        m_iStarted = 1;
    } else if (m_pSinkHandle != nullptr && m_pServerSink != nullptr) {
        // The gateway opened the stream and then failed to push it: the talk
        // that opened it closes it, since stop only tears down a started talk.
        m_pServerSink->OnClose(m_pSinkHandle);
        m_pSinkHandle = nullptr;
    }
    return result;
}

int CQumexAudioTalkSession::convertToRtspProcess(const std::string& rtspUrl)
{
    // The URL carries the client's Host: checked like every client text that
    // goes into a request for the gateway.
    if (singleton<CHttpServerWrapper>::instance()->options().checkRequestText &&
        !IsSafeRequestText(rtspUrl, SPACES_REFUSED)) {
        HPW_LOGE(HPW_ERR_PARAM, "Talk refused, a control byte in the Host the talk was opened with");
        SetErrorCode(HPW_ERR_PARAM);
        SetStatusCode(400);
        return HPW_ERR_PARAM;
    }
    // No Authorization is forwarded: the open request was authenticated already.
    std::string text = "DESCRIBE " + rtspUrl + " RTSP/1.0\r\n";
    text += "CSeq: 1\r\n";
    text += "Accept: application/sdp\r\n";
    text += "User-Agent: httpClient\r\n";
    text += "\r\n";
    // A request that does not parse is recorded in the error code only, and the
    // talk counts as started: the gateway has always seen it so (Q7).
    if (!parseRequest(text, false)) {
        return 0;
    }
    int result = filterRequest();
    if (result != 0) {
        return result;
    }
    return openStream(this, &m_pSinkHandle, text, rtspUrl);
}

void CQumexAudioTalkSession::closeLink(CIocpTcpTransmitter* link)
{
    if (link != nullptr) {
        link->Close();  // closes the socket too
        delete link;
    }
}

int CQumexAudioTalkSession::stop()
{
    CIocpTcpTransmitter* download;
    CIocpTcpTransmitter* upload;
    {
        ZRT_Guard guard(m_lock);
        if (m_iStarted == 0) {
            return 0;
        }
        m_iStarted = 0;
        download = m_pDownloadLink;
        m_pDownloadLink = nullptr;
        m_iDownloadSocket = -1;
        upload = m_pUploadLink;
        m_pUploadLink = nullptr;
        m_iUploadSocket = -1;
    }
    // In this order: no client audio reaches the gateway once its stream is
    // stopped, and no device audio is sent once the gateway has closed it.
    // Closing the link is what silences its receive callback: Close marks the
    // link closed and waits for a callback that is running.
    closeLink(download);
    if (m_pSinkHandle != nullptr && m_pServerSink != nullptr) {
        m_pServerSink->OnStop(m_pSinkHandle, 0);
        m_pServerSink->OnClose(m_pSinkHandle);
    }
    closeLink(upload);
    return 0;
}

int CQumexAudioTalkSession::send(int index, int dataType, void* data, int length)
{
    switch (dataType) {
    case PROTOCOL_WRAPPER::STREAM_INFO: {
        size_t copy = StreamBlock::infoCopyLength(data, length);
        if (m_iWaitFirstHeader != 0) {
            if (index >= 0 && index == m_iStreamHeaderCount && m_iStreamHeaderCount < kStreamHeaderSlots) {
                if (copy != 0) {
                    memcpy(m_streamHeaders[index], data, copy);
                }
                m_iStreamHeaderCount++;
            }
            calcAudioPacketSize();
            m_iWaitFirstHeader = 0;
        } else if (index >= 0 && index < m_iStreamHeaderCount && copy != 0) {
            // Refreshes a stored header; the packet size stays what the first one made it.
            memcpy(m_streamHeaders[index], data, copy);
        }
        return 0;
    }
    case PROTOCOL_WRAPPER::STREAM_DATA: {
        int result = -1;
        {
            // Held only to post: stop cannot close the link under a send in progress.
            ZRT_Guard guard(m_lock);
            if (m_pUploadLink != nullptr && m_iDestroyPending == 0 && data != nullptr && length > 0) {
                result = m_pUploadLink->SendData(static_cast<char*>(data), length, nullptr, nullptr, m_iSendCheckLimit);
            }
        }
        // The device is alive whether or not a client listens.
        m_iTimeoutCount.store(0);
        return result;
    }
    case PROTOCOL_WRAPPER::STREAM_END:
        pushDestroyReq();
        HPW_LOGD("[strMediaUrl = %s]device STREAM_END", GetMediaURL());
        return -1;
    default: HPW_LOGI("[type=%d]Unknown data type", dataType); return -1;
    }
}

void CQumexAudioTalkSession::calcAudioPacketSize()
{
    std::string codec = StreamBlock::readCodecName(m_streamHeaders[0]);
    if (codec == "PCMU" || codec == "PCMA") {
        m_iPacketSize = kG711PacketSize;
    } else if (codec == "G7221" || codec == "G726-16") {
        m_iPacketSize = kNarrowPacketSize;
    }
    HPW_LOGI("QUMEX talk audio type is %s, packet size = %d, m_strMediaURL = %s", codec.c_str(), m_iPacketSize.load(),
             GetMediaURL());
}

bool CQumexAudioTalkSession::setClientUploadLink(CIocpTcpTransmitter* link, int socket)
{
    CIocpTcpTransmitter* previous;
    {
        ZRT_Guard guard(m_lock);
        if (m_iStarted == 0) {
            return false;
        }
        previous = m_pUploadLink;
        m_pUploadLink = link;
        m_iUploadSocket = socket;
    }
    closeLink(previous);
    return true;
}

void CQumexAudioTalkSession::setRecvBuffer(CYCLE_BUFFER* buffer)
{
    if (buffer != nullptr) {
        ZRT_Guard guard(m_lock);
        m_handedRecvBuffer = *buffer;
    }
}

bool CQumexAudioTalkSession::setClientDownloadLink(CIocpTcpTransmitter* link, int socket)
{
    CIocpTcpTransmitter* previous;
    {
        ZRT_Guard guard(m_lock);
        if (m_iStarted == 0) {
            return false;
        }
        previous = m_pDownloadLink;
        m_pDownloadLink = nullptr;
    }
    // The earlier connection's callbacks use the receive buffer record: they are
    // over once its Close returns, and only then is the new buffer installed.
    closeLink(previous);
    {
        ZRT_Guard guard(m_lock);
        if (m_iStarted == 0) {
            return false;
        }
        m_recvBuffer = m_handedRecvBuffer;
        m_pDownloadLink = link;
        m_iDownloadSocket = socket;
    }
    // Audio that came with the request head goes first, before the receive that
    // follows it is posted: nothing reads into the buffer while it drains. This
    // runs on the link's completion thread, so a stop on another thread waits in
    // the link's Close until it is done.
    if (m_recvBuffer.nWrite > m_recvBuffer.nRead) {
        sendDataToDev();
    }
    postAudioReceive();
    return true;
}

void CQumexAudioTalkSession::postAudioReceive()
{
    ZRT_Guard guard(m_lock);
    if (m_pDownloadLink == nullptr) {
        return;  // stopped meanwhile
    }
    int space = m_recvBuffer.nSize - m_recvBuffer.nWrite;
    // A full buffer means audio the gateway does not take: the talk ends rather
    // than stall unseen.
    if (space <= 0 || m_pDownloadLink->RecvData(m_recvBuffer.pBuf + m_recvBuffer.nWrite, space,
                                                reinterpret_cast<void*>(fnAudioDataRecv), this) != 0) {
        pushDestroyReq();
    }
}

void CQumexAudioTalkSession::fnAudioDataRecv(unsigned long errorCode, unsigned long bytes, void* context)
{
    CQumexAudioTalkSession* self = static_cast<CQumexAudioTalkSession*>(context);
    if (self == nullptr) {
        return;
    }
    if (errorCode == 0 && bytes > 0) {
        self->m_recvBuffer.nWrite += static_cast<int>(bytes);
        self->sendDataToDev();
        self->postAudioReceive();
    } else if (errorCode == ZRT_ASYNCIO_ABORTED) {
        self->postAudioReceive();
    } else {
        HPW_LOGD("[nErrorCode = %d, nNumberOfBytes = %d, bufLen = %d]fnAudioDataRecv error.",
                 static_cast<int>(errorCode), static_cast<int>(bytes),
                 self->m_recvBuffer.nSize - self->m_recvBuffer.nWrite);
        self->pushDestroyReq();
    }
}

int CQumexAudioTalkSession::sendDataToDev()
{
    {
        ZRT_Guard guard(m_lock);
        if (m_iStarted == 0 || m_pDownloadLink == nullptr) {
            return -1;
        }
    }
    // The rest runs on the download link's completion thread without the lock:
    // packets go to the gateway straight from the buffer.
    CYCLE_BUFFER& buffer = m_recvBuffer;
    int packetSize = m_iPacketSize;
    if (packetSize > 0) {
        while (buffer.nWrite - buffer.nRead >= packetSize) {
            if (m_iStarted != 0 && m_iDestroyPending == 0) {
                m_pServerSink->OnInputData(m_pSinkHandle, 0, PROTOCOL_WRAPPER::STREAM_DATA, buffer.pBuf + buffer.nRead,
                                           packetSize);
                m_iRecvTimeoutCount.store(0);
            }
            buffer.nRead += packetSize;
        }
        if (buffer.nWrite == buffer.nRead) {
            buffer.nWrite = 0;
            buffer.nRead = 0;
        } else {
            // A partial packet waits at the front for the bytes that complete it.
            memmove(buffer.pBuf, buffer.pBuf + buffer.nRead, static_cast<size_t>(buffer.nWrite - buffer.nRead));
            buffer.nWrite -= buffer.nRead;
            buffer.nRead = 0;
        }
    } else if (m_iStarted != 0 && m_iDestroyPending == 0) {
        // An unknown codec: everything received so far, as it came.
        m_pServerSink->OnInputData(m_pSinkHandle, 0, PROTOCOL_WRAPPER::STREAM_DATA, buffer.pBuf, buffer.nWrite);
        m_iRecvTimeoutCount.store(0);
        buffer.nWrite = 0;
    }
    return 0;
}

int CQumexAudioTalkSession::pushDestroyReq()
{
    tagAsyncReq job = SessionJob(ASYNC_TALK_DESTROY, this);
    job.strKey = m_strTalkUrl;
    PushDestroyOnce(m_iDestroyPending, job);
    return 0;
}

int CQumexAudioTalkSession::getTimeoutCount()
{
    return m_iTimeoutCount.load();
}

int CQumexAudioTalkSession::increaseTimeoutCount()
{
    ++m_iTimeoutCount;
    return 0;
}

int CQumexAudioTalkSession::getRecvTimeoutCount()
{
    return m_iRecvTimeoutCount.load();
}

int CQumexAudioTalkSession::increaseRecvTimeoutCount()
{
    ++m_iRecvTimeoutCount;
    return 0;
}

}  // namespace HttpWrapper
