// A request as it travels through the gateway's filter chain, with its text
// parser and builder.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLREQUEST_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLREQUEST_H

#include <string>

#include <ProtocolFilter.h>

#include "protocol/ProtocolCommon.h"
#include "protocol/ProtocolRequestLine.h"

namespace HttpWrapper {

class CProtocolRequest : public PROTOCOL_FILTER::IProtocolRequest {
public:
    CProtocolRequest();
    ~CProtocolRequest() override;

    CProtocolRequest(const CProtocolRequest&) = delete;
    CProtocolRequest& operator=(const CProtocolRequest&) = delete;

    PROTOCOL_FILTER::IProtocolRequestLine* GetProtocolRequestLine() override;
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
    // Whether the filter chain still has to authenticate the request.
    bool bNeedAuth() override;

    void setNeedAuth(bool needAuth);

    // Fills an empty request from zero-terminated message text of length
    // bytes. Returns 1 when the header terminator was found, else 0 (and the
    // request is unchanged). A request line that is not exactly three words
    // is left empty while the heads are still read.
    int ParseRequest(char* text, int length);
    // Writes the message text into buf (never past size bytes) and returns
    // the length of the whole message; a result above size means it did not fit.
    int BuildRequest(char* buf, int size);

private:
    void ParseRequestLine(const std::string& line);

    CProtocolCommon m_common;
    bool m_bNeedAuth;
    CProtocolRequestLine m_requestLine;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLREQUEST_H
