#include "protocol/ProtocolBody.h"

#include <cstring>
#include <new>

namespace HttpWrapper {

CProtocolBody::CProtocolBody() : m_pContent(nullptr), m_iContentLength(0)
{
}

CProtocolBody::~CProtocolBody()
{
    Free();
}

int CProtocolBody::GetBodyType()
{
    return 0;
}

int CProtocolBody::GetBodyContent(char** content)
{
    if (content != nullptr) {
        *content = m_pContent;
    }
    return m_iContentLength;
}

void CProtocolBody::SetBodyContent(const char* data, int length)
{
    Free();
    // A negative length, or bytes promised from nowhere, leave the body empty.
    if (length < 0 || (data == nullptr && length > 0)) {
        return;
    }
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    m_pContent = new (std::nothrow) char[size];
    if (m_pContent == nullptr) {
        return;
    }
    std::memset(m_pContent, 0, size);
    if (length > 0) {
        std::memcpy(m_pContent, data, static_cast<std::size_t>(length));
    }
    m_iContentLength = length;
}

void CProtocolBody::Free()
{
    delete[] m_pContent;
    m_pContent = nullptr;
    m_iContentLength = 0;
}

}  // namespace HttpWrapper
