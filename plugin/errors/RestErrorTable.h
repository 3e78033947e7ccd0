// REST error numbers of the device API: 32-bit codes whose top four bits name
// a status group (1 to 7) and whose low bits number a row within the group.
// The process-wide tables below map a number to its group (HTTP status,
// status string) and row (sub-status name, error message). They are filled by
// the first lookup and never change afterwards, so lookups read them without a
// lock.
#ifndef HTTPWRAPPER_ERRORS_RESTERRORTABLE_H
#define HTTPWRAPPER_ERRORS_RESTERRORTABLE_H

#include <atomic>
#include <map>
#include <string>

#include <json/json.h>
#include <zrt/zrt.h>

#include "errors/RestErrorCodes.h"

namespace HttpWrapper {

// One row. Both texts are constants; nothing is owned.
struct tagREST_ERR_DESC {
    const char* pSubStatusName;
    const char* pErrorMsg;

    tagREST_ERR_DESC() : pSubStatusName(nullptr), pErrorMsg(nullptr) {}
    void SetParam(const char* subStatusName, const char* errorMsg)
    {
        pSubStatusName = subStatusName;
        pErrorMsg = errorMsg;
    }
};

typedef std::map<ZRT_UINT32, tagREST_ERR_DESC> REST_ERR_MAP;

// One status group; the group number is the ResponseStatus "statusCode".
struct tagREST_ERR_GROUP {
    REST_ERR_MAP* pErrMap;
    const char* pStatusString;
    ZRT_UINT32 uHttpStatus;

    tagREST_ERR_GROUP() : pErrMap(nullptr), pStatusString(nullptr), uHttpStatus(0) {}
    void SetParam(REST_ERR_MAP* errMap, const char* statusString, ZRT_UINT32 httpStatus)
    {
        pErrMap = errMap;
        pStatusString = statusString;
        uHttpStatus = httpStatus;
    }
};

extern REST_ERR_MAP g_aRestErrMap1;
extern REST_ERR_MAP g_aRestErrMap2;
extern REST_ERR_MAP g_aRestErrMap3;
extern REST_ERR_MAP g_aRestErrMap4;
extern REST_ERR_MAP g_aRestErrMap5;
extern REST_ERR_MAP g_aRestErrMap6;
extern REST_ERR_MAP g_aRestErrMap7;
extern tagREST_ERR_GROUP g_aRestErrGroup[7];  // index = group number - 1
// True once the tables are filled. Stored with release after the last write to
// the tables and read with acquire, so a reader that sees true also sees the
// filled maps without taking g_mutex.
extern std::atomic<bool> g_bInitErrCode;
extern ZRT_Mutex g_mutex;  // serialises the lazy filling

// Fills the seven maps and the group array, then sets g_bInitErrCode. The
// caller holds g_mutex.
void initErrorCodeMaps();

// The three lookups fill the tables on first use. They never log and never
// throw; on failure (result 0) the outputs are left untouched.

// 1 when the number has a row: status becomes the ResponseStatus object
// ("statusCode", "statusString", "subStatusCode", "errorCode", "errorMsg") and
// httpStatus the group's HTTP status.
int getResponseStatusByErrorNo(ZRT_UINT32 errorNo, Json::Value& status, ZRT_UINT32& httpStatus);
// 1 when the number's group is valid, with or without a row.
int getHttpStatusCodeByErrorNo(ZRT_UINT32 errorNo, ZRT_UINT32& httpStatus);
// 1 when the number has a row; desc becomes its sub-status name.
int getDescByErrorNo(std::string& desc, ZRT_UINT32 errorNo);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_ERRORS_RESTERRORTABLE_H
