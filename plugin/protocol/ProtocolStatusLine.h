// The first line of a response: "RTSP/1.0 200 OK". A new status line reads
// "RTSP/1.0 200 OK" until something is set.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLSTATUSLINE_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLSTATUSLINE_H

#include <string>

#include <ProtocolFilter.h>

namespace HttpWrapper {

class CProtocolStatusLine : public PROTOCOL_FILTER::IProtocolStatusLine {
public:
    CProtocolStatusLine();
    ~CProtocolStatusLine() override;

    const char* GetProtocolName() override;
    const char* GetProtocolVersion() override;
    const char* GetStatusCode() override;
    const char* GetStatusDescribe() override;
    void SetProtocolName(const char* name) override;
    void SetProtocolVersion(const char* version) override;
    void SetStatusCode(const char* code) override;
    void SetStatusDescribe(const char* describe) override;

private:
    std::string m_strStatusCode;
    std::string m_strStatusDescribe;
    std::string m_strProtocolName;
    std::string m_strProtocolVersion;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLSTATUSLINE_H
