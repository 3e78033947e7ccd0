// A response as it travels through the gateway's filter chain, with its text
// parser and builder.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLRESPONSE_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLRESPONSE_H

#include <string>

#include <ProtocolFilter.h>

#include "protocol/ProtocolCommon.h"
#include "protocol/ProtocolStatusLine.h"

namespace HttpWrapper {

class CProtocolResponse : public PROTOCOL_FILTER::IProtocolResponse {
public:
    CProtocolResponse();
    ~CProtocolResponse() override;

    CProtocolResponse(const CProtocolResponse&) = delete;
    CProtocolResponse& operator=(const CProtocolResponse&) = delete;

    PROTOCOL_FILTER::IProtocolStatusLine* GetProtocolStatusLine() override;
    PROTOCOL_FILTER::IProtocolBody* GetProtocolBody() override;
    PROTOCOL_FILTER::IProtocolHead* GetFirstHead() override;
    PROTOCOL_FILTER::IProtocolHead* GetNextHead() override;
    PROTOCOL_FILTER::IProtocolHead* GetHeadByName(const char* name) override;
    PROTOCOL_FILTER::IProtocolHead* InsertHeadFirst(const char* name, const char* value) override;
    PROTOCOL_FILTER::IProtocolHead* InsertHeadLast(const char* name, const char* value) override;
    PROTOCOL_FILTER::IProtocolHead* InsertHeadAfter(const char* name, const char* value,
                                                    PROTOCOL_FILTER::IProtocolHead* ref) override;
    PROTOCOL_FILTER::IProtocolHead* InsertHeadBefore(const char* name, const char* value,
                                                     PROTOCOL_FILTER::IProtocolHead* ref) override;
    void DeleteHeadFirst() override;
    void DeleteHeadLast() override;
    void DeleteHead(PROTOCOL_FILTER::IProtocolHead* head) override;
    void DeleteHeadAfter(PROTOCOL_FILTER::IProtocolHead* ref) override;
    void DeleteHeadBefore(PROTOCOL_FILTER::IProtocolHead* ref) override;

    // As CProtocolRequest::ParseRequest, for a status line.
    int ParseResponse(char* text, int length);
    // As CProtocolRequest::BuildRequest.
    int BuildResponse(char* buf, int size);

private:
    void ParseStatusLine(const std::string& line);

    CProtocolCommon m_common;
    CProtocolStatusLine m_statusLine;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLRESPONSE_H
