// A name and value pair inside a header value ("unicast", "client_port=8000").
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLATTR_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLATTR_H

#include <string>

#include <ProtocolFilter.h>

namespace HttpWrapper {

class CProtocolAttr : public PROTOCOL_FILTER::IProtocolAttr {
public:
    // A null name or value is taken as the empty string.
    CProtocolAttr(const char* name, const char* value);
    ~CProtocolAttr() override;

    const char* GetAttrName() override;
    const char* GetAttrValue() override;
    // Renaming does not move the attribute in its head's name index.
    void SetAttrName(const char* name) override;
    void SetAttrValue(const char* value) override;
    bool HasAttrValue() override;
    int GetAttrIntValue() override;
    double GetAttrFloatValue() override;
    // Both outputs stay untouched unless the value is exactly "<low>-<high>"
    // after a cut at its first "-".
    void GetAttrIntRange(int* min, int* max) override;
    void GetAttrFloatRange(double* min, double* max) override;
    void SetAttrIntValue(int value) override;
    void SetAttrFloatValue(double value) override;
    void SetAttrIntRange(int min, int max) override;
    void SetAttrFloatRange(double min, double max) override;

private:
    std::string m_strAttrName;
    std::string m_strAttrValue;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLATTR_H
