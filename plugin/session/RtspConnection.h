// What every session that opens a stream on the gateway shares: the connection
// context the filter chain reads and writes while it handles the session's
// RTSP request, and the steps from that request's text to the started stream.
// Each session builds its own request and decides on its own whether the
// filter chain may set the server address (SetServerIP).
#ifndef HTTPWRAPPER_SESSION_RTSPCONNECTION_H
#define HTTPWRAPPER_SESSION_RTSPCONNECTION_H

#include <atomic>
#include <string>

#include <ProtocolFilter.h>
#include <ProtocolWrapper.h>

#include "frame/SessionInterface.h"
#include "protocol/ProtocolRequest.h"

namespace HttpWrapper {

class CRtspConnection : public PROTOCOL_FILTER::IConnectContext {
public:
    CRtspConnection(PROTOCOL_FILTER::IProtocolFilter* filterChain, PROTOCOL_WRAPPER::IServerSink* serverSink)
        : m_pServerSink(serverSink), m_pProtocolFilterChain(filterChain)
    {
    }
    ~CRtspConnection() override = default;

    const char* GetFilterURL() override { return m_strFilterURL.c_str(); }
    const char* GetMediaURL() override { return m_strMediaURL.c_str(); }
    void SetFilterURL(const char* url) override { m_strFilterURL = url != nullptr ? url : ""; }
    void SetMediaURL(const char* url) override { m_strMediaURL = url != nullptr ? url : ""; }
    const char* GetServerIP() override { return m_strServerIP.c_str(); }
    int GetStatusCode() override { return m_iStatusCode; }
    void SetStatusCode(int code) override { m_iStatusCode = code; }
    int GetErrorCode() override { return m_iErrorCode; }
    void SetErrorCode(int code) override { m_iErrorCode = code; }
    const char* GetErrorDescribe() override { return m_strErrorDescribe.c_str(); }
    void SetErrorDescribe(const char* text) override { m_strErrorDescribe = text != nullptr ? text : ""; }
    const char* GetErrorRsp() override { return m_strErrorRsp.c_str(); }
    void SetErrorRsp(const char* text) override { m_strErrorRsp = text != nullptr ? text : ""; }

    // The status code as the RTSP table gives it.
    int getStatusCodeRtspInt();

protected:
    // Parses the request's text into m_request. False when it does not parse:
    // the failure is then in the error code only, and the caller reports
    // success all the same, as the gateway has always seen it.
    bool parseRequest(std::string& text, bool needAuth);
    // The filter chain's verdict on m_request (no chain: HPW_ERR_NO_FILTER). A
    // refusal is also left in the error code, with the status from the RTSP table.
    int filterRequest();
    // Opens the stream of `session` on the gateway's sink into `handle`, then
    // pushes and starts it. 0, or the failure (also in the error code, with
    // status 500). `text` is the request, for the failures' log lines; `url`
    // names the stream in the success's.
    int openStream(ISessionInterface* session, void** handle, const std::string& text, const std::string& url);

    std::string m_strFilterURL;
    std::string m_strMediaURL;
    std::string m_strServerIP;
    std::string m_strErrorDescribe;
    std::string m_strErrorRsp;
    std::atomic<int> m_iStatusCode{0};
    std::atomic<int> m_iErrorCode{0};
    PROTOCOL_WRAPPER::IServerSink* m_pServerSink;
    PROTOCOL_FILTER::IProtocolFilter* m_pProtocolFilterChain;
    CProtocolRequest m_request;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_RTSPCONNECTION_H
