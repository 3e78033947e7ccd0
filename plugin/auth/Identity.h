// Identity tokens through the identity library loaded at run time, for modules
// that prefer not to depend on it at link time. Tokens are Base64 text.
#ifndef HTTPWRAPPER_AUTH_IDENTITY_H
#define HTTPWRAPPER_AUTH_IDENTITY_H

#include <string>

#include <zrt/zrt.h>

#include "frame/singleton.h"

namespace HttpWrapper {

class CIdentity : public singleton<CIdentity> {
public:
    CIdentity() = default;
    ~CIdentity() override;
    CIdentity(const CIdentity&) = delete;
    CIdentity& operator=(const CIdentity&) = delete;

    // Loads the library and starts it; true at once when already started.
    bool Init();
    // Stops and unloads the library; true also when it was not started.
    bool Fini();
    // Asks the library for a token and returns it as Base64 text.
    bool Apply(std::string& token);
    // True when the library accepts the token given as Base64 text.
    bool Check(const std::string& token);

private:
    typedef int (*PFN_Identify_Init)();
    typedef int (*PFN_Identify_Fini)();
    typedef int (*PFN_Identify_Apply)(int, int, unsigned char*, int*);
    typedef int (*PFN_Identify_Check)(int, int, const unsigned char*, int);

    void* m_hIdentifyDll = nullptr;
    bool m_bInit = false;
    PFN_Identify_Init m_fpIdentify_Init = nullptr;
    PFN_Identify_Fini m_fpIdentify_Fini = nullptr;
    PFN_Identify_Apply m_fpIdentify_Apply = nullptr;
    PFN_Identify_Check m_fpIdentify_Check = nullptr;
    // Guards the members above: Init and Fini change what Apply and Check
    // call, and any thread may use the singleton.
    ZRT_Mutex m_mutex;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_AUTH_IDENTITY_H
