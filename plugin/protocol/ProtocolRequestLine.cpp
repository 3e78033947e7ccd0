#include "protocol/ProtocolRequestLine.h"

#include "protocol/ProtocolValue.h"

namespace HttpWrapper {

CProtocolRequestLine::CProtocolRequestLine()
{
}

CProtocolRequestLine::~CProtocolRequestLine()
{
}

const char* CProtocolRequestLine::GetProtocolMethod()
{
    return m_strProtocolMethod.c_str();
}

const char* CProtocolRequestLine::GetProtocolURL()
{
    return m_strProtocolURL.c_str();
}

const char* CProtocolRequestLine::GetProtocolName()
{
    return m_strProtocolName.c_str();
}

const char* CProtocolRequestLine::GetProtocolVersion()
{
    return m_strProtocolVersion.c_str();
}

const char* CProtocolRequestLine::getProtocolOriginalURL()
{
    return m_strOriginalURL.c_str();
}

void CProtocolRequestLine::SetProtocolMethod(const char* method)
{
    m_strProtocolMethod = TextOrEmpty(method);
}

void CProtocolRequestLine::SetProtocolURL(const char* url)
{
    m_strProtocolURL = TextOrEmpty(url);
}

void CProtocolRequestLine::SetProtocolName(const char* name)
{
    m_strProtocolName = TextOrEmpty(name);
}

void CProtocolRequestLine::SetProtocolVersion(const char* version)
{
    m_strProtocolVersion = TextOrEmpty(version);
}

void CProtocolRequestLine::setProtocolOriginalURL(const char* url)
{
    m_strOriginalURL = TextOrEmpty(url);
}

}  // namespace HttpWrapper
