// The rows of the REST error tables as one constant list, in the order in
// which they are entered into the group maps. The order matters: a number
// listed twice keeps the row listed last.
#ifndef HTTPWRAPPER_ERRORS_RESTERRORROWS_H
#define HTTPWRAPPER_ERRORS_RESTERRORROWS_H

#include <stddef.h>

#include <zrt/zrt.h>

namespace HttpWrapper {

struct tagREST_ERR_ROW {
    ZRT_UINT32 uGroup;           // the map the row is entered into (1 to 7)
    ZRT_UINT32 uErrorNo;         // REST error number
    const char* pSubStatusName;  // "subStatusCode" of the ResponseStatus document
    const char* pErrorMsg;       // "errorMsg"; empty for rows published without a message
};

extern const tagREST_ERR_ROW g_aRestErrRows[];
extern const size_t g_nRestErrRowCount;

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_ERRORS_RESTERRORROWS_H
