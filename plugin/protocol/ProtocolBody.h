// The owned byte buffer of a message. The buffer always holds one byte more
// than its length, a terminating zero, so a text body can be read as a string.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLBODY_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLBODY_H

#include <ProtocolFilter.h>

namespace HttpWrapper {

class CProtocolBody : public PROTOCOL_FILTER::IProtocolBody {
public:
    CProtocolBody();
    ~CProtocolBody() override;

    CProtocolBody(const CProtocolBody&) = delete;
    CProtocolBody& operator=(const CProtocolBody&) = delete;

    // No body types other than the plain one (0) exist.
    int GetBodyType() override;
    // Stores the content (null when the body was never set) and returns its length.
    int GetBodyContent(char** content) override;
    // Replaces the content with a copy. When the copy cannot be allocated the
    // body stays empty; the filter chain has no way to hear of it.
    void SetBodyContent(const char* data, int length) override;

private:
    void Free();

    char* m_pContent;
    int m_iContentLength;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLBODY_H
