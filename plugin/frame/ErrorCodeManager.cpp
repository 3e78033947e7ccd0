#include "frame/ErrorCodeManager.h"

#include <pthread.h>

namespace HttpWrapper {

void CErrorCodeManager::SetErrCode(int code)
{
    ZRT_Guard guard(m_mutex);
    m_errCodes[static_cast<unsigned long>(pthread_self())] = code;
}

int CErrorCodeManager::GetErrCode()
{
    ZRT_Guard guard(m_mutex);
    auto found = m_errCodes.find(static_cast<unsigned long>(pthread_self()));
    return found == m_errCodes.end() ? 0 : found->second;
}

}  // namespace HttpWrapper
