// One connection of the raw two-way audio channel. It reads one HTTP request
// from the socket into its receive buffer, challenges it or forwards its
// credentials, checks the talk URL and session id against the open talks, and
// hands the connection to the talk: a GET becomes the talk's upload link
// (device audio to the client), a PUT its download link (client audio to the
// device), together with the buffer and the audio that followed the head.
// After that one request the session asks for its own destruction.
//
// Ownership: the session owns its transmitter (and with it the socket) until
// the hand-over; afterwards the talk does, and fini closes nothing.
#ifndef HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSION_H
#define HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSION_H

#include <atomic>
#include <map>
#include <string>

#include "session/HttpSessionBase.h"
#include "talk/CycleBuffer.h"
#include "talk/HttpParser.h"

namespace HttpWrapper {

class CIocpTcpTransmitter;

class CHttpUnstandardSession : public CHttpSessionBase {
public:
    CHttpUnstandardSession(PROTOCOL_FILTER::IProtocolFilter* filterChain, PROTOCOL_WRAPPER::IServerSink* serverSink);
    ~CHttpUnstandardSession() override;

    int init(int socket);
    int fini();  // always 0

    static void fnHttpUnstandardSessionRecv(unsigned long error, unsigned long bytes, void* session);

    // The step of a queued process job: posts the first receive, or, once the
    // request is complete, handles it. The arguments are not used: the data is
    // in the receive buffer.
    int processRecvData(char* body, int length);
    int processAuth();
    void buildHttpReqParam();
    int processHttpGet(char* body, int length);
    int processHttpPut(char* body, int length);
    int processHttpPost(char* body, int length);
    int processHttpDelete(char* body, int length);
    int processQumexAudioTalkGet(char* body, int length);
    int processQumexAudioTalkPut(char* body, int length);

    // The raw session has no stream of its own: gateway data is not delivered here.
    int send(int index, int dataType, void* data, int length) override;

    int pushDestroyReq();  // always 0; queues the session's destruction once

    int getSocket() const { return m_iConnSocketFd; }
    int getState() const { return m_iState; }

private:
    // What the GET and PUT handlers share: the talk this request names, after
    // the gateway accepted it. Null when refused (the refusal is sent).
    std::shared_ptr<class CQumexAudioTalkSession> findTalk();
    // Writes a complete reply on the connection (kept until it went out).
    int sendRaw(const std::string& reply);
    int replyXml(unsigned int errorNo, const std::string& extraHeaders = std::string());
    void postReceive();

    std::atomic<int> m_iConnSocketFd{-1};
    std::atomic<int> m_iHandedSocket{-1};  // kept for the logs after the hand-over
    CIocpTcpTransmitter* m_pTransmitter = nullptr;
    CYCLE_BUFFER m_cycleBuffer;
    CHttpParser m_parser;
    std::atomic<int> m_iRequestComplete{0};
    int m_iMethodCode = -1;
    std::map<std::string, std::string> m_digestFields;  // of the Authorization header, by name
    bool m_bHasAuthorization = false;
    std::string m_strReply;  // the last reply written on the connection
    std::atomic<int> m_iDestroyRequested{0};
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TALK_HTTPUNSTANDARDSESSION_H
