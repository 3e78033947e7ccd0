// One two-way audio talk between an HTTP client and a device channel. The
// device side is opened through the gateway as an RTSP DESCRIBE of a
// "/dac/talk/" URL; audio then flows both ways: the device's audio, delivered by
// the gateway through send, goes out on the client's GET connection (the upload
// link), and the client's audio, read from its PUT connection (the download
// link), is cut into codec packets and handed to the gateway.
//
// Ownership: the talk owns the transmitters (and with them the sockets) of the
// links the raw channel hands it, and closes them in stop. The manager's table
// holds the talk by shared pointer; completion callbacks get the raw pointer,
// which stays valid because stop closes both links (and a link's Close waits for
// its running callback) before the last reference can go.
//
// Locks: m_lock guards the links, the started flag, the session id and the
// receive buffer record as handed over. It is never held while a link is closed
// or while the gateway's stop and close run, since a link's Close waits for the
// link's callbacks, which take it.
#ifndef HTTPWRAPPER_TALK_QUMEXAUDIOTALKSESSION_H
#define HTTPWRAPPER_TALK_QUMEXAUDIOTALKSESSION_H

#include <atomic>
#include <string>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>
#include <ext/StreamBlockLayout.h>
#include <zrt/zrt.h>

#include "frame/SessionInterface.h"
#include "protocol/ProtocolRequest.h"
#include "session/RtspConnection.h"
#include "talk/CycleBuffer.h"

namespace HttpWrapper {

class CIocpTcpTransmitter;

class CQumexAudioTalkSession : public CRtspConnection, public ISessionInterface {
public:
    CQumexAudioTalkSession(PROTOCOL_FILTER::IProtocolFilter* filterChain, PROTOCOL_WRAPPER::IServerSink* serverSink);
    ~CQumexAudioTalkSession() override;
    CQumexAudioTalkSession(const CQumexAudioTalkSession&) = delete;
    CQumexAudioTalkSession& operator=(const CQumexAudioTalkSession&) = delete;

    // The filter chain may set the server address of the DESCRIBE.
    void SetServerIP(const char* ip) override { m_strServerIP = ip != nullptr ? ip : ""; }

    // ISessionInterface: the gateway's delivery of the device's stream info (10),
    // audio (2) and end (100). 0 or -1.
    int send(int index, int dataType, void* data, int length) override;

    // The talk URL, also the manager's key: "/QUMEX/System/TwoWayAudio/channels/<n>"
    // followed by "?indexType=httpPort&httpPort=<port>".
    int setRtspUrl(std::string& url);
    void setTalkSessionId(std::string& id);
    std::string getTalkSessionId();
    // Host and port of the DESCRIBE URL (those of the open request's Host).
    void setAddress(std::string& ip, int port);
    void setUsername(const std::string& name);

    // Opens the device side; 0 on success, else the failure (also in the error
    // code and the status code).
    int start();
    // Closes the client links and the gateway's stream; always 0. A second call
    // does nothing.
    int stop();

    // The raw channel hands over a client connection. True when the talk took
    // the transmitter (and its socket); false when the talk is not started, and
    // the caller still owns it. A link of the same direction that was attached
    // before is closed: the client reconnected.
    bool setClientUploadLink(CIocpTcpTransmitter* link, int socket);
    // The buffer the PUT connection's request was read into, with the audio that
    // followed the request head; given before setClientDownloadLink.
    void setRecvBuffer(CYCLE_BUFFER* buffer);
    // Must run on the link's own completion thread, as the raw channel's
    // receive callback does: the audio already in the buffer goes to the device
    // first, then the next receive is posted.
    bool setClientDownloadLink(CIocpTcpTransmitter* link, int socket);

    static void fnAudioDataRecv(unsigned long errorCode, unsigned long bytes, void* context);
    int sendDataToDev();
    void calcAudioPacketSize();
    int pushDestroyReq();  // always 0; queues the talk's destruction once

    // Idle counters aged by the manager: passes without device audio, and
    // without client audio.
    int getTimeoutCount();
    int increaseTimeoutCount();
    int getRecvTimeoutCount();
    int increaseRecvTimeoutCount();

    int getPacketSize() const { return m_iPacketSize; }
    bool isStarted() const { return m_iStarted != 0; }
    // The talk URL; set once, before the talk is registered.
    const std::string& getTalkUrl() const { return m_strTalkUrl; }

    static const int kStreamHeaderSlots = 4;

private:
    int convertToRtspProcess(const std::string& rtspUrl);
    // Posts the next receive of the download link at the buffer's free space.
    void postAudioReceive();
    static void closeLink(CIocpTcpTransmitter* link);

    const int m_iSendCheckLimit;  // SendData's checkLimit for device audio
    ZRT_Mutex m_lock{1};
    CIocpTcpTransmitter* m_pUploadLink = nullptr;    // the client's GET connection
    CIocpTcpTransmitter* m_pDownloadLink = nullptr;  // the client's PUT connection
    std::string m_strTalkSessionId;
    int m_iUploadSocket = -1;
    int m_iDownloadSocket = -1;
    std::atomic<int> m_iStarted{0};
    CYCLE_BUFFER m_recvBuffer;          // read and drained on the download link's completion thread
    CYCLE_BUFFER m_handedRecvBuffer;    // as setRecvBuffer gave it, installed with the download link
    std::atomic<int> m_iPacketSize{0};  // bytes per packet to the device; 0: passed on as received
    std::atomic<int> m_iDestroyPending{0};
    std::string m_strAddress;
    int m_iPort = 0;
    std::string m_strTalkUrl;  // the manager's key; never changed once the talk is registered
    std::string m_strUserName;
    void* m_pSinkHandle = nullptr;
    std::atomic<ZRT_INT32> m_iTimeoutCount{0};
    std::atomic<ZRT_INT32> m_iRecvTimeoutCount{0};
    char m_streamHeaders[kStreamHeaderSlots][StreamBlock::kInfoSize];
    int m_iStreamHeaderCount = 0;
    int m_iWaitFirstHeader = 1;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TALK_QUMEXAUDIOTALKSESSION_H
