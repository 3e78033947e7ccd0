// The standard HTTP session: one object per request handle of the embedded
// HTTP server. It authenticates and dispatches the request, and streams what
// the gateway delivers back to the client.
#ifndef HTTPWRAPPER_SESSION_HTTPSESSION_H
#define HTTPWRAPPER_SESSION_HTTPSESSION_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include <ext/DeliveryRequest.h>

#include <zrt/zrt.h>

#include "session/HttpSessionBase.h"
#include "session/ReplyFraming.h"
#include "talk/HttpParser.h"

namespace HttpWrapper {

class CHttpSession : public CHttpSessionBase {
public:
    CHttpSession(PROTOCOL_FILTER::IProtocolFilter* filterChain, PROTOCOL_WRAPPER::IServerSink* serverSink);
    ~CHttpSession() override;

    int init(int httpHandle);
    int processRecvData(char* body, int length);
    int fini();  // always 0

    int processHttpGet(char* body, int length);
    int processHttpPut(char* body, int length);
    int processHttpPost(char* body, int length);
    int processHttpDelete(char* body, int length);

    // Downloads: POST ...?format=json with a JSON body, GET with an XML body.
    int processDownloadRequest(char* body, int length);
    int processQumexDownloadRequest(char* body, int length);

    // Two-way audio: PUT .../TwoWayAudio/channels/<n>/open and .../close.
    int processQumexAudioTalkOpen(char* body, int length);
    int processQumexAudioTalkClose(char* body, int length);

    // Authentication gate: forwards Digest credentials or sends the challenge.
    int processAuth();

    int pushDestroyReq();  // always 0; queues the session's destruction once

    // ISessionInterface: the gateway's delivery of stream head, info, data and end.
    int send(int index, int dataType, void* data, int length) override;
    int sendStream(void* data, int length);
    int sendHead(int status);
    // The head of a download that asked for a range, from the gateway's report in its first STREAM_INFO.
    int sendRangedHead(const char* info, size_t length);
    int sendReply(int status, const char* body, int bodyLength, const std::string& contentSubtype);

    // The gateway hands over the rest of the download (ext/DeliveryRequest.h): 0 when the HTTP server took
    // the file, else a module error code and the gateway goes on with send().
    int deliverFile(const PROTOCOL_WRAPPER::DeliveryRequest& request);
    // True from a taken delivery on: the HTTP server's loop paces the download, not send().
    bool isDelivering();
    struct DeliveryState;  // what the session and the server's callback share

    int getHttpHandle() const { return m_iHttpHandle; }
    int getState() const { return m_iState; }
    bool isChunked() const { return m_framing.isChunked(); }
    unsigned long long getFileLength() const { return m_ullFileLen; }

    // No progress of a reply for this long ends a download.
    static const ZRT_UINT64 kSendStallLimitMs = 60000;

protected:
    // The talk URL of an open or close request (the playback URI), with the
    // Host's address and port; answers the client itself on failure (-1).
    int talkUrlOfRequest(const char* verb, std::string& address, int& port);
    // 0 when the gateway accepts the talk request; otherwise the refusal is sent.
    int checkTalkWithGateway();
    // Reads Range and If-Range of a download that announces its length; a
    // usable range becomes the Download-Range head of the RTSP request.
    void readDownloadRange();
    // Stages status and headers, writes the head, and marks a streamed body to follow.
    int sendStreamHead(int status, const CReplyFraming::Headers& headers);
    // A delivery still running ends now, and its callback has come when this returns.
    void endDelivery();

    std::atomic<int> m_iHttpHandle{-1};
    std::atomic<unsigned long long> m_ullFileLen{0};
    std::atomic<int> m_iDestroyRequested{0};
    std::atomic<bool> m_bClosing{false};  // set by fini before the gateway's stream is stopped
    int m_iDownloadCounted = 0;
    CHttpParser m_parser;  // used for its getAuthName only
    std::atomic<int> m_iEndSent{0};
    CReplyFraming m_framing;
    // A hand-over and fini exclude each other: either fini comes first and nothing is taken, or it finds
    // the delivery and ends it before the gateway hears OnStop.
    std::mutex m_deliveryLock;
    std::shared_ptr<DeliveryState> m_delivery;  // under m_deliveryLock; set once
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_HTTPSESSION_H
