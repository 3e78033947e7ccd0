// Common base of the standard and raw HTTP sessions: the connection context the
// filter chain sees, the status and error state, the XML error reply, and the
// step that joins an HTTP request to the gateway: its conversion to an RTSP
// request that goes through the filter chain and is opened on the gateway's sink.
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
#include "util/HttpHelper.h"

namespace HttpWrapper {

// Session states.
enum SessionState {
    SESSION_CREATED = 0,
    SESSION_INITIALISED = 1,  // handle known, request parameters read
    SESSION_PROCESSED = 2,    // the request was handled, whatever the outcome
    SESSION_CLOSED = 3,       // fini ran
};

class CHttpSessionBase : public PROTOCOL_FILTER::IConnectContext, public ISessionInterface {
public:
    CHttpSessionBase(PROTOCOL_FILTER::IProtocolFilter* filterChain, PROTOCOL_WRAPPER::IServerSink* serverSink);
    ~CHttpSessionBase() override;

    // IConnectContext: written by the filter chain while it handles the request.
    const char* GetFilterURL() override { return m_strFilterURL.c_str(); }
    const char* GetMediaURL() override { return m_strMediaURL.c_str(); }
    void SetFilterURL(const char* url) override { m_strFilterURL = url != nullptr ? url : ""; }
    void SetMediaURL(const char* url) override { m_strMediaURL = url != nullptr ? url : ""; }
    const char* GetServerIP() override { return m_strServerIP.c_str(); }
    // The server address is not the filter chain's to change: the setter keeps it empty on purpose.
    void SetServerIP(const char*) override {}
    int GetStatusCode() override { return m_iStatusCode; }
    void SetStatusCode(int code) override { m_iStatusCode = code; }
    int GetErrorCode() override { return m_iErrorCode; }
    void SetErrorCode(int code) override { m_iErrorCode = code; }
    const char* GetErrorDescribe() override { return m_strErrorDescribe.c_str(); }
    void SetErrorDescribe(const char* text) override { m_strErrorDescribe = text != nullptr ? text : ""; }
    const char* GetErrorRsp() override { return m_strErrorRsp.c_str(); }
    void SetErrorRsp(const char* text) override { m_strErrorRsp = text != nullptr ? text : ""; }

    int getStatusCodeRtspInt();
    int getTimeoutCount();
    int increaseTimeoutCount();

    // A complete raw HTTP response carrying the XML ResponseStatus of errorNo.
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

    std::string m_strFilterURL;
    std::string m_strMediaURL;
    std::string m_strServerIP;  // SetServerIP stores nothing on purpose
    std::string m_strClientIP;  // X-Forwarded-For, forwarded as "&clientIP="
    std::string m_strErrorDescribe;
    std::atomic<int> m_iStatusCode{0};
    std::atomic<int> m_iErrorCode{0};
    CHttpErrorHandler m_errorHandler;
    CHttpHelper m_httpHelper;
    PROTOCOL_WRAPPER::IServerSink* m_pServerSink;
    PROTOCOL_FILTER::IProtocolFilter* m_pProtocolFilterChain;
    void* m_pSessionHandle = nullptr;  // the gateway's stream, from OnOpen
    CProtocolRequest m_request;
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
    std::string m_strErrorRsp;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_HTTPSESSIONBASE_H
