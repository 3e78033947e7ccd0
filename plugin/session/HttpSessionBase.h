// Common base of the standard and raw HTTP sessions: the XML error reply, and
// the step that joins an HTTP request to the gateway: its conversion to an RTSP
// request, which goes through the filter chain and is opened on the gateway's
// sink (the connection context and the steps the talk shares: RtspConnection.h).
#ifndef HTTPWRAPPER_SESSION_HTTPSESSIONBASE_H
#define HTTPWRAPPER_SESSION_HTTPSESSIONBASE_H

#include <atomic>
#include <string>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>
#include <ext/StreamBlockLayout.h>
#include <netutils/VQNetUtils.h>
#include <zrt/zrt.h>

#include "errors/HttpErrorHandler.h"
#include "frame/SessionInterface.h"
#include "protocol/ProtocolFilter.h"
#include "session/RtspConnection.h"
#include "util/HttpHelper.h"

namespace HttpWrapper {

// Session states.
enum SessionState {
    SESSION_CREATED = 0,
    SESSION_INITIALISED = 1,  // handle known, request parameters read
    SESSION_PROCESSED = 2,    // the request was handled, whatever the outcome
    SESSION_CLOSED = 3,       // fini ran
};

class CHttpSessionBase : public CRtspConnection, public ISessionInterface {
public:
    CHttpSessionBase(PROTOCOL_FILTER::IProtocolFilter* filterChain, PROTOCOL_WRAPPER::IServerSink* serverSink);
    ~CHttpSessionBase() override;

    // The server address is not the filter chain's to change: the setter keeps it empty on purpose (Q8).
    void SetServerIP(const char*) override {}

    int getTimeoutCount();
    int increaseTimeoutCount();

    // A complete raw HTTP response carrying the XML ResponseStatus of errorNo;
    // its status line doubles the code (Q1).
    std::string getHttpXmlResponse(unsigned int errorNo, const std::string& extraHeaders);

    // Builds the RTSP request, runs it through the filter chain and opens and
    // starts the stream on the gateway's sink. 0 on success; otherwise the
    // failure is also left in the error code (and, past the filter chain, in the
    // status code).
    int convertToRtspProcess(bool needAuth);

    const std::string& getPlaybackURI() const { return m_strPlaybackURI; }
    CProtocolRequest& getRequest() { return m_request; }

protected:
    const char* requestUrl() const { return m_requestParam.szUrl; }
    // The client's text the RTSP request takes, checked once (checkRequestText);
    // false, with the error and status set to badParameters, when any is unsafe.
    bool clientTextIsSafe();
    // The REST error a refused talk request answers with: badAuthorization
    // after a 401, else internalError, or (talkGatewayRefusal) the error the
    // gateway or the conversion left when it is a REST error number.
    unsigned int talkRefusalError();

    std::string m_strClientIP;  // X-Forwarded-For, forwarded as "&clientIP="
    CHttpErrorHandler m_errorHandler;
    CHttpHelper m_httpHelper;
    void* m_pSessionHandle = nullptr;  // the gateway's stream, from OnOpen
    std::string m_strPlaybackURI;
    std::string m_strDownloadRange;  // the Download-Range head's value; empty without a usable Range
    std::atomic<ZRT_INT32> m_iTimeoutCount{0};
    enum { kStreamInfoSlots = 4 };
    char m_streamInfo[kStreamInfoSlots][StreamBlock::kInfoSize];
    int m_iStreamInfoCount = 0;
    int m_iWaitFirstInfo = 1;
    ZRT_Mutex m_lock{1};  // recursive: handlers call back into locked operations
    std::atomic<int> m_iState{SESSION_CREATED};
    NET_HTTPSERVER_REQUEST_PARAM m_requestParam;
    std::string m_strAuthorization;
    std::string m_strMethod;
    std::string m_strUserName;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_HTTPSESSIONBASE_H
