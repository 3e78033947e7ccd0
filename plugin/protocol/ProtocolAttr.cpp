#include "protocol/ProtocolAttr.h"

#include <cstdlib>

#include "protocol/ProtocolValue.h"

namespace HttpWrapper {

CProtocolAttr::CProtocolAttr(const char* name, const char* value)
    : m_strAttrName(TextOrEmpty(name)), m_strAttrValue(TextOrEmpty(value))
{
}

CProtocolAttr::~CProtocolAttr()
{
}

const char* CProtocolAttr::GetAttrName()
{
    return m_strAttrName.c_str();
}

const char* CProtocolAttr::GetAttrValue()
{
    return m_strAttrValue.c_str();
}

void CProtocolAttr::SetAttrName(const char* name)
{
    m_strAttrName = TextOrEmpty(name);
}

void CProtocolAttr::SetAttrValue(const char* value)
{
    m_strAttrValue = TextOrEmpty(value);
}

bool CProtocolAttr::HasAttrValue()
{
    return !m_strAttrValue.empty();
}

int CProtocolAttr::GetAttrIntValue()
{
    return std::atoi(m_strAttrValue.c_str());
}

double CProtocolAttr::GetAttrFloatValue()
{
    return std::atof(m_strAttrValue.c_str());
}

void CProtocolAttr::GetAttrIntRange(int* min, int* max)
{
    std::string low;
    std::string high;
    if (!SplitRange(m_strAttrValue, low, high)) {
        return;
    }
    if (min != nullptr) {
        *min = std::atoi(low.c_str());
    }
    if (max != nullptr) {
        *max = std::atoi(high.c_str());
    }
}

void CProtocolAttr::GetAttrFloatRange(double* min, double* max)
{
    std::string low;
    std::string high;
    if (!SplitRange(m_strAttrValue, low, high)) {
        return;
    }
    if (min != nullptr) {
        *min = std::atof(low.c_str());
    }
    if (max != nullptr) {
        *max = std::atof(high.c_str());
    }
}

void CProtocolAttr::SetAttrIntValue(int value)
{
    m_strAttrValue = FormatIntValue(value);
}

void CProtocolAttr::SetAttrFloatValue(double value)
{
    m_strAttrValue = FormatFloatValue(value);
}

void CProtocolAttr::SetAttrIntRange(int min, int max)
{
    m_strAttrValue = FormatIntRange(min, max);
}

void CProtocolAttr::SetAttrFloatRange(double min, double max)
{
    m_strAttrValue = FormatFloatRange(min, max);
}

}  // namespace HttpWrapper
