// The header container and body that requests and responses embed. The head
// operations of both messages forward here unchanged.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLCOMMON_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLCOMMON_H

#include <ProtocolFilter.h>

#include "protocol/ProtocolBody.h"
#include "protocol/ProtocolHead.h"
#include "protocol/ProtocolList.h"

namespace HttpWrapper {

class CProtocolCommon {
public:
    CProtocolCommon();
    virtual ~CProtocolCommon();

    CProtocolCommon(const CProtocolCommon&) = delete;
    CProtocolCommon& operator=(const CProtocolCommon&) = delete;

    // The head list; see ProtocolList.h for duplicates, the name index and the
    // single cursor.
    PROTOCOL_FILTER::IProtocolHead* GetFirstHead();
    PROTOCOL_FILTER::IProtocolHead* GetNextHead();
    PROTOCOL_FILTER::IProtocolHead* GetHeadByName(const char* name);
    PROTOCOL_FILTER::IProtocolHead* InsertHeadFirst(const char* name, const char* value);
    PROTOCOL_FILTER::IProtocolHead* InsertHeadLast(const char* name, const char* value);
    PROTOCOL_FILTER::IProtocolHead* InsertHeadAfter(const char* name, const char* value,
                                                    PROTOCOL_FILTER::IProtocolHead* ref);
    PROTOCOL_FILTER::IProtocolHead* InsertHeadBefore(const char* name, const char* value,
                                                     PROTOCOL_FILTER::IProtocolHead* ref);
    void DeleteHeadFirst();
    void DeleteHeadLast();
    void DeleteHead(PROTOCOL_FILTER::IProtocolHead* head);
    void DeleteHeadAfter(PROTOCOL_FILTER::IProtocolHead* ref);
    void DeleteHeadBefore(PROTOCOL_FILTER::IProtocolHead* ref);

    CProtocolBody* GetProtocolBody();

private:
    CProtocolList<PROTOCOL_FILTER::IProtocolHead, CProtocolHead> m_headList;
    CProtocolBody m_body;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLCOMMON_H
