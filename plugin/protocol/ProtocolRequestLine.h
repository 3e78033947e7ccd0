// The first line of a request: "DESCRIBE rtsp://host/path RTSP/1.0". The URL
// as first parsed is kept apart, so later stages may rewrite the protocol URL.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLREQUESTLINE_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLREQUESTLINE_H

#include <string>

#include <ProtocolFilter.h>

namespace HttpWrapper {

class CProtocolRequestLine : public PROTOCOL_FILTER::IProtocolRequestLine {
public:
    CProtocolRequestLine();
    ~CProtocolRequestLine() override;

    const char* GetProtocolMethod() override;
    const char* GetProtocolURL() override;
    const char* GetProtocolName() override;
    const char* GetProtocolVersion() override;
    const char* getProtocolOriginalURL() override;
    void SetProtocolMethod(const char* method) override;
    void SetProtocolURL(const char* url) override;
    void SetProtocolName(const char* name) override;
    void SetProtocolVersion(const char* version) override;
    void setProtocolOriginalURL(const char* url) override;

private:
    std::string m_strProtocolMethod;
    std::string m_strProtocolURL;
    std::string m_strProtocolName;
    std::string m_strProtocolVersion;
    std::string m_strOriginalURL;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLREQUESTLINE_H
