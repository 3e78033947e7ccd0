#include "protocol/ProtocolStatusLine.h"

#include "protocol/ProtocolValue.h"

namespace HttpWrapper {

CProtocolStatusLine::CProtocolStatusLine()
    : m_strStatusCode("200"), m_strStatusDescribe("OK"), m_strProtocolName("RTSP"), m_strProtocolVersion("1.0")
{
}

CProtocolStatusLine::~CProtocolStatusLine()
{
}

const char* CProtocolStatusLine::GetProtocolName()
{
    return m_strProtocolName.c_str();
}

const char* CProtocolStatusLine::GetProtocolVersion()
{
    return m_strProtocolVersion.c_str();
}

const char* CProtocolStatusLine::GetStatusCode()
{
    return m_strStatusCode.c_str();
}

const char* CProtocolStatusLine::GetStatusDescribe()
{
    return m_strStatusDescribe.c_str();
}

void CProtocolStatusLine::SetProtocolName(const char* name)
{
    m_strProtocolName = TextOrEmpty(name);
}

void CProtocolStatusLine::SetProtocolVersion(const char* version)
{
    m_strProtocolVersion = TextOrEmpty(version);
}

void CProtocolStatusLine::SetStatusCode(const char* code)
{
    m_strStatusCode = TextOrEmpty(code);
}

void CProtocolStatusLine::SetStatusDescribe(const char* describe)
{
    m_strStatusDescribe = TextOrEmpty(describe);
}

}  // namespace HttpWrapper
