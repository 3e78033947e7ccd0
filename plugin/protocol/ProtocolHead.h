// A named header line ("Transport: RTP/AVP;unicast") with the attributes its
// value was split into. The value and the attributes are independent: setting
// the value does not re-split it, and the attribute list is filled only by the
// message parser or by the insertion calls.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLHEAD_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLHEAD_H

#include <string>

#include <ProtocolFilter.h>

#include "protocol/ProtocolAttr.h"
#include "protocol/ProtocolList.h"

namespace HttpWrapper {

class CProtocolHead : public PROTOCOL_FILTER::IProtocolHead {
public:
    // A null name or value is taken as the empty string.
    CProtocolHead(const char* name, const char* value);
    ~CProtocolHead() override;

    CProtocolHead(const CProtocolHead&) = delete;
    CProtocolHead& operator=(const CProtocolHead&) = delete;

    const char* GetHeadName() override;
    void SetHeadName(const char* name) override;
    const char* GetHeadValue() override;
    void SetHeadValue(const char* value) override;
    int GetHeadIntValue() override;
    double GetHeadFloatValue() override;
    void SetHeadIntValue(int value) override;
    void SetHeadFloatValue(double value) override;
    bool HasHeadValue() override;

    // The attribute list; see ProtocolList.h for duplicates, the name index and
    // the single cursor.
    PROTOCOL_FILTER::IProtocolAttr* GetFirstAttr() override;
    PROTOCOL_FILTER::IProtocolAttr* GetNextAttr() override;
    PROTOCOL_FILTER::IProtocolAttr* GetAttrByName(const char* name) override;
    PROTOCOL_FILTER::IProtocolAttr* InsertAttrFirst(const char* name, const char* value) override;
    PROTOCOL_FILTER::IProtocolAttr* InsertAttrLast(const char* name, const char* value) override;
    PROTOCOL_FILTER::IProtocolAttr* InsertAttrAfter(const char* name, const char* value,
                                                    PROTOCOL_FILTER::IProtocolAttr* ref) override;
    PROTOCOL_FILTER::IProtocolAttr* InsertAttrBefore(const char* name, const char* value,
                                                     PROTOCOL_FILTER::IProtocolAttr* ref) override;
    void DeleteAttrFirst() override;
    void DeleteAttrLast() override;
    void DeleteAttr(PROTOCOL_FILTER::IProtocolAttr* attr) override;
    void DeleteAttrAfter(PROTOCOL_FILTER::IProtocolAttr* ref) override;
    void DeleteAttrBefore(PROTOCOL_FILTER::IProtocolAttr* ref) override;

private:
    std::string m_strHeadName;
    std::string m_strHeadValue;
    CProtocolList<PROTOCOL_FILTER::IProtocolAttr, CProtocolAttr> m_attrList;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLHEAD_H
