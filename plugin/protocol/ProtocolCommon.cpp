#include "protocol/ProtocolCommon.h"

namespace HttpWrapper {

using PROTOCOL_FILTER::IProtocolHead;

CProtocolCommon::CProtocolCommon()
{
}

CProtocolCommon::~CProtocolCommon()
{
    // The heads go before the body, as the filter chain's objects always did.
    m_headList.Clear();
}

IProtocolHead* CProtocolCommon::GetFirstHead()
{
    return m_headList.GetFirst();
}

IProtocolHead* CProtocolCommon::GetNextHead()
{
    return m_headList.GetNext();
}

IProtocolHead* CProtocolCommon::GetHeadByName(const char* name)
{
    return m_headList.GetByName(name);
}

IProtocolHead* CProtocolCommon::InsertHeadFirst(const char* name, const char* value)
{
    return m_headList.InsertFirst(name, value);
}

IProtocolHead* CProtocolCommon::InsertHeadLast(const char* name, const char* value)
{
    return m_headList.InsertLast(name, value);
}

IProtocolHead* CProtocolCommon::InsertHeadAfter(const char* name, const char* value, IProtocolHead* ref)
{
    return m_headList.InsertAfter(name, value, ref);
}

IProtocolHead* CProtocolCommon::InsertHeadBefore(const char* name, const char* value, IProtocolHead* ref)
{
    return m_headList.InsertBefore(name, value, ref);
}

void CProtocolCommon::DeleteHeadFirst()
{
    m_headList.DeleteFirst();
}

void CProtocolCommon::DeleteHeadLast()
{
    m_headList.DeleteLast();
}

void CProtocolCommon::DeleteHead(IProtocolHead* head)
{
    m_headList.Delete(head);
}

void CProtocolCommon::DeleteHeadAfter(IProtocolHead* ref)
{
    m_headList.DeleteAfter(ref);
}

void CProtocolCommon::DeleteHeadBefore(IProtocolHead* ref)
{
    m_headList.DeleteBefore(ref);
}

CProtocolBody* CProtocolCommon::GetProtocolBody()
{
    return &m_body;
}

}  // namespace HttpWrapper
