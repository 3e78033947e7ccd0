// The last-error register read by ProtocolWrapper_GetLastError: one code per
// thread that ever set one; entries are never removed.
#ifndef HTTPWRAPPER_FRAME_ERRORCODEMANAGER_H
#define HTTPWRAPPER_FRAME_ERRORCODEMANAGER_H

#include <map>

#include <zrt/zrt.h>

#include "frame/singleton.h"

namespace HttpWrapper {

class CErrorCodeManager : public singleton<CErrorCodeManager> {
public:
    void Init() {}
    // Fini leaves the map as it is: a thread still reads its code afterwards.
    void Fini() {}
    void SetErrCode(int code);
    int GetErrCode();

private:
    ZRT_Mutex m_mutex;                        // guards m_errCodes
    std::map<unsigned long, int> m_errCodes;  // pthread_self() -> last code
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_ERRORCODEMANAGER_H
