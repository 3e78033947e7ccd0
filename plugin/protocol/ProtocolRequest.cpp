#include "protocol/ProtocolRequest.h"

#include <string>
#include <vector>

#include "protocol/ProtocolText.h"
#include "util/StringUtils.h"

namespace HttpWrapper {

using PROTOCOL_FILTER::IProtocolBody;
using PROTOCOL_FILTER::IProtocolHead;
using PROTOCOL_FILTER::IProtocolRequestLine;

CProtocolRequest::CProtocolRequest() : m_bNeedAuth(true)
{
}

CProtocolRequest::~CProtocolRequest()
{
}

IProtocolRequestLine* CProtocolRequest::GetProtocolRequestLine()
{
    return &m_requestLine;
}

IProtocolBody* CProtocolRequest::GetProtocolBody()
{
    return m_common.GetProtocolBody();
}

IProtocolHead* CProtocolRequest::GetFirstHead()
{
    return m_common.GetFirstHead();
}

IProtocolHead* CProtocolRequest::GetNextHead()
{
    return m_common.GetNextHead();
}

IProtocolHead* CProtocolRequest::GetHeadByName(const char* name)
{
    return m_common.GetHeadByName(name);
}

IProtocolHead* CProtocolRequest::InsertHeadFirst(const char* name, const char* value)
{
    return m_common.InsertHeadFirst(name, value);
}

IProtocolHead* CProtocolRequest::InsertHeadLast(const char* name, const char* value)
{
    return m_common.InsertHeadLast(name, value);
}

IProtocolHead* CProtocolRequest::InsertHeadAfter(const char* name, const char* value, IProtocolHead* ref)
{
    return m_common.InsertHeadAfter(name, value, ref);
}

IProtocolHead* CProtocolRequest::InsertHeadBefore(const char* name, const char* value, IProtocolHead* ref)
{
    return m_common.InsertHeadBefore(name, value, ref);
}

void CProtocolRequest::DeleteHeadFirst()
{
    m_common.DeleteHeadFirst();
}

void CProtocolRequest::DeleteHeadLast()
{
    m_common.DeleteHeadLast();
}

void CProtocolRequest::DeleteHead(IProtocolHead* head)
{
    m_common.DeleteHead(head);
}

void CProtocolRequest::DeleteHeadAfter(IProtocolHead* ref)
{
    m_common.DeleteHeadAfter(ref);
}

void CProtocolRequest::DeleteHeadBefore(IProtocolHead* ref)
{
    m_common.DeleteHeadBefore(ref);
}

bool CProtocolRequest::bNeedAuth()
{
    return m_bNeedAuth;
}

void CProtocolRequest::setNeedAuth(bool needAuth)
{
    m_bNeedAuth = needAuth;
}

int CProtocolRequest::ParseRequest(char* text, int length)
{
    std::string firstLine;
    if (!ParseMessageText(text, length, m_common, firstLine)) {
        return 0;
    }
    ParseRequestLine(firstLine);
    return 1;
}

void CProtocolRequest::ParseRequestLine(const std::string& line)
{
    std::vector<std::string> words;
    if (Split(line, " ", words, -1) != 3) {
        return;
    }
    m_requestLine.SetProtocolMethod(words[0].c_str());
    m_requestLine.SetProtocolURL(words[1].c_str());
    m_requestLine.setProtocolOriginalURL(words[1].c_str());
    std::vector<std::string> protocol;
    if (Split(words[2], "/", protocol, -1) == 2) {
        m_requestLine.SetProtocolName(protocol[0].c_str());
        m_requestLine.SetProtocolVersion(protocol[1].c_str());
    }
}

int CProtocolRequest::BuildRequest(char* buf, int size)
{
    CMessageTextWriter writer(buf, size);
    writer.Format("%s %s %s/%s\r\n", m_requestLine.GetProtocolMethod(), m_requestLine.GetProtocolURL(),
                  m_requestLine.GetProtocolName(), m_requestLine.GetProtocolVersion());
    return writer.FinishMessage(m_common);
}

}  // namespace HttpWrapper
