/*
 * The gateway's message model: requests and responses as they travel through
 * the gateway's protocol filter chain, and the per-connection context that the
 * plug-in's sessions implement.
 *
 * The virtual slot order of every interface is shared with the gateway and
 * must be kept exactly; the destructor always stands last.
 */
#ifndef PROTOCOL_FILTER_H
#define PROTOCOL_FILTER_H

namespace PROTOCOL_FILTER {

class IProtocolAttr {
public:
    virtual const char* GetAttrName() = 0;
    virtual const char* GetAttrValue() = 0;
    virtual void SetAttrName(const char* name) = 0;
    virtual void SetAttrValue(const char* value) = 0;
    virtual bool HasAttrValue() = 0;
    virtual int GetAttrIntValue() = 0;
    virtual double GetAttrFloatValue() = 0;
    virtual void GetAttrIntRange(int* min, int* max) = 0;
    virtual void GetAttrFloatRange(double* min, double* max) = 0;
    virtual void SetAttrIntValue(int value) = 0;
    virtual void SetAttrFloatValue(double value) = 0;
    virtual void SetAttrIntRange(int min, int max) = 0;
    virtual void SetAttrFloatRange(double min, double max) = 0;
    virtual ~IProtocolAttr() {}
};

class IProtocolHead {
public:
    virtual const char* GetHeadName() = 0;
    virtual void SetHeadName(const char* name) = 0;
    virtual const char* GetHeadValue() = 0;
    virtual void SetHeadValue(const char* value) = 0;
    virtual int GetHeadIntValue() = 0;
    virtual double GetHeadFloatValue() = 0;
    virtual void SetHeadIntValue(int value) = 0;
    virtual void SetHeadFloatValue(double value) = 0;
    virtual bool HasHeadValue() = 0;
    virtual IProtocolAttr* GetFirstAttr() = 0;
    virtual IProtocolAttr* GetNextAttr() = 0;
    virtual IProtocolAttr* GetAttrByName(const char* name) = 0;
    virtual IProtocolAttr* InsertAttrFirst(const char* name, const char* value) = 0;
    virtual IProtocolAttr* InsertAttrLast(const char* name, const char* value) = 0;
    virtual IProtocolAttr* InsertAttrAfter(const char* name, const char* value, IProtocolAttr* ref) = 0;
    virtual IProtocolAttr* InsertAttrBefore(const char* name, const char* value, IProtocolAttr* ref) = 0;
    virtual void DeleteAttrFirst() = 0;
    virtual void DeleteAttrLast() = 0;
    virtual void DeleteAttr(IProtocolAttr* attr) = 0;
    virtual void DeleteAttrAfter(IProtocolAttr* ref) = 0;
    virtual void DeleteAttrBefore(IProtocolAttr* ref) = 0;
    virtual ~IProtocolHead() {}
};

class IProtocolBody {
public:
    virtual int GetBodyType() = 0;
    virtual int GetBodyContent(char** content) = 0;
    virtual void SetBodyContent(const char* data, int length) = 0;
    virtual ~IProtocolBody() {}
};

class IProtocolRequestLine {
public:
    virtual const char* GetProtocolMethod() = 0;
    virtual const char* GetProtocolURL() = 0;
    virtual const char* GetProtocolName() = 0;
    virtual const char* GetProtocolVersion() = 0;
    virtual const char* getProtocolOriginalURL() = 0;
    virtual void SetProtocolMethod(const char* method) = 0;
    virtual void SetProtocolURL(const char* url) = 0;
    virtual void SetProtocolName(const char* name) = 0;
    virtual void SetProtocolVersion(const char* version) = 0;
    virtual void setProtocolOriginalURL(const char* url) = 0;
    virtual ~IProtocolRequestLine() {}
};

class IProtocolStatusLine {
public:
    virtual const char* GetProtocolName() = 0;
    virtual const char* GetProtocolVersion() = 0;
    virtual const char* GetStatusCode() = 0;
    virtual const char* GetStatusDescribe() = 0;
    virtual void SetProtocolName(const char* name) = 0;
    virtual void SetProtocolVersion(const char* version) = 0;
    virtual void SetStatusCode(const char* code) = 0;
    virtual void SetStatusDescribe(const char* describe) = 0;
    virtual ~IProtocolStatusLine() {}
};

class IProtocolRequest {
public:
    virtual IProtocolRequestLine* GetProtocolRequestLine() = 0;
    virtual IProtocolBody* GetProtocolBody() = 0;
    virtual IProtocolHead* GetFirstHead() = 0;
    virtual IProtocolHead* GetNextHead() = 0;
    virtual IProtocolHead* GetHeadByName(const char* name) = 0;
    virtual IProtocolHead* InsertHeadFirst(const char* name, const char* value) = 0;
    virtual IProtocolHead* InsertHeadLast(const char* name, const char* value) = 0;
    virtual IProtocolHead* InsertHeadAfter(const char* name, const char* value, IProtocolHead* ref) = 0;
    virtual IProtocolHead* InsertHeadBefore(const char* name, const char* value, IProtocolHead* ref) = 0;
    virtual void DeleteHeadFirst() = 0;
    virtual void DeleteHeadLast() = 0;
    virtual void DeleteHead(IProtocolHead* head) = 0;
    virtual void DeleteHeadAfter(IProtocolHead* ref) = 0;
    virtual void DeleteHeadBefore(IProtocolHead* ref) = 0;
    virtual bool bNeedAuth() = 0;
    virtual ~IProtocolRequest() {}
};

class IProtocolResponse {
public:
    virtual IProtocolStatusLine* GetProtocolStatusLine() = 0;
    virtual IProtocolBody* GetProtocolBody() = 0;
    virtual IProtocolHead* GetFirstHead() = 0;
    virtual IProtocolHead* GetNextHead() = 0;
    virtual IProtocolHead* GetHeadByName(const char* name) = 0;
    virtual IProtocolHead* InsertHeadFirst(const char* name, const char* value) = 0;
    virtual IProtocolHead* InsertHeadLast(const char* name, const char* value) = 0;
    virtual IProtocolHead* InsertHeadAfter(const char* name, const char* value, IProtocolHead* ref) = 0;
    virtual IProtocolHead* InsertHeadBefore(const char* name, const char* value, IProtocolHead* ref) = 0;
    virtual void DeleteHeadFirst() = 0;
    virtual void DeleteHeadLast() = 0;
    virtual void DeleteHead(IProtocolHead* head) = 0;
    virtual void DeleteHeadAfter(IProtocolHead* ref) = 0;
    virtual void DeleteHeadBefore(IProtocolHead* ref) = 0;
    virtual ~IProtocolResponse() {}
};

// The connection a request came from, as the filter chain sees it. The chain
// may set the URLs and the status and error fields while it handles a request.
class IConnectContext {
public:
    virtual const char* GetFilterURL() = 0;
    virtual const char* GetMediaURL() = 0;
    virtual void SetFilterURL(const char* url) = 0;
    virtual void SetMediaURL(const char* url) = 0;
    virtual const char* GetServerIP() = 0;
    virtual void SetServerIP(const char* ip) = 0;
    virtual int GetStatusCode() = 0;
    virtual void SetStatusCode(int code) = 0;
    virtual int GetErrorCode() = 0;
    virtual void SetErrorCode(int code) = 0;
    virtual const char* GetErrorDescribe() = 0;
    virtual void SetErrorDescribe(const char* describe) = 0;
    virtual const char* GetErrorRsp() = 0;
    virtual void SetErrorRsp(const char* response) = 0;
    virtual ~IConnectContext() {}
};

// Implemented by the gateway. 0 accepts the request; anything else refuses it.
class IProtocolFilter {
public:
    virtual int Request(IProtocolRequest* request, int flags, IConnectContext* context) = 0;
    virtual int Response(IProtocolResponse* response, int flags, IConnectContext* context) = 0;
    virtual ~IProtocolFilter() {}
};

}  // namespace PROTOCOL_FILTER

#endif  // PROTOCOL_FILTER_H
