#include "protocol/ProtocolHead.h"

#include <cstdlib>

#include "protocol/ProtocolValue.h"

namespace HttpWrapper {

using PROTOCOL_FILTER::IProtocolAttr;

CProtocolHead::CProtocolHead(const char* name, const char* value)
    : m_strHeadName(TextOrEmpty(name)), m_strHeadValue(TextOrEmpty(value))
{
}

CProtocolHead::~CProtocolHead()
{
}

const char* CProtocolHead::GetHeadName()
{
    return m_strHeadName.c_str();
}

void CProtocolHead::SetHeadName(const char* name)
{
    m_strHeadName = TextOrEmpty(name);
}

const char* CProtocolHead::GetHeadValue()
{
    return m_strHeadValue.c_str();
}

void CProtocolHead::SetHeadValue(const char* value)
{
    m_strHeadValue = TextOrEmpty(value);
}

int CProtocolHead::GetHeadIntValue()
{
    return std::atoi(m_strHeadValue.c_str());
}

double CProtocolHead::GetHeadFloatValue()
{
    return std::atof(m_strHeadValue.c_str());
}

void CProtocolHead::SetHeadIntValue(int value)
{
    m_strHeadValue = FormatIntValue(value);
}

void CProtocolHead::SetHeadFloatValue(double value)
{
    m_strHeadValue = FormatFloatValue(value);
}

bool CProtocolHead::HasHeadValue()
{
    return !m_strHeadValue.empty();
}

IProtocolAttr* CProtocolHead::GetFirstAttr()
{
    return m_attrList.GetFirst();
}

IProtocolAttr* CProtocolHead::GetNextAttr()
{
    return m_attrList.GetNext();
}

IProtocolAttr* CProtocolHead::GetAttrByName(const char* name)
{
    return m_attrList.GetByName(name);
}

IProtocolAttr* CProtocolHead::InsertAttrFirst(const char* name, const char* value)
{
    return m_attrList.InsertFirst(name, value);
}

IProtocolAttr* CProtocolHead::InsertAttrLast(const char* name, const char* value)
{
    return m_attrList.InsertLast(name, value);
}

IProtocolAttr* CProtocolHead::InsertAttrAfter(const char* name, const char* value, IProtocolAttr* ref)
{
    return m_attrList.InsertAfter(name, value, ref);
}

IProtocolAttr* CProtocolHead::InsertAttrBefore(const char* name, const char* value, IProtocolAttr* ref)
{
    return m_attrList.InsertBefore(name, value, ref);
}

void CProtocolHead::DeleteAttrFirst()
{
    m_attrList.DeleteFirst();
}

void CProtocolHead::DeleteAttrLast()
{
    m_attrList.DeleteLast();
}

void CProtocolHead::DeleteAttr(IProtocolAttr* attr)
{
    m_attrList.Delete(attr);
}

void CProtocolHead::DeleteAttrAfter(IProtocolAttr* ref)
{
    m_attrList.DeleteAfter(ref);
}

void CProtocolHead::DeleteAttrBefore(IProtocolAttr* ref)
{
    m_attrList.DeleteBefore(ref);
}

}  // namespace HttpWrapper
