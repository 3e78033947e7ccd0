#include "errors/RestErrorTable.h"

#include "errors/RestErrorCodes.h"
#include "errors/RestErrorRows.h"

namespace HttpWrapper {

REST_ERR_MAP g_aRestErrMap1;
REST_ERR_MAP g_aRestErrMap2;
REST_ERR_MAP g_aRestErrMap3;
REST_ERR_MAP g_aRestErrMap4;
REST_ERR_MAP g_aRestErrMap5;
REST_ERR_MAP g_aRestErrMap6;
REST_ERR_MAP g_aRestErrMap7;
tagREST_ERR_GROUP g_aRestErrGroup[7];
std::atomic<bool> g_bInitErrCode(false);
ZRT_Mutex g_mutex;

namespace {

const ZRT_UINT32 kGroupCount = 7;

REST_ERR_MAP* const kGroupMaps[kGroupCount] = {&g_aRestErrMap1, &g_aRestErrMap2, &g_aRestErrMap3, &g_aRestErrMap4,
                                               &g_aRestErrMap5, &g_aRestErrMap6, &g_aRestErrMap7};

struct tagGROUP_DEF {
    const char* pStatusString;
    ZRT_UINT32 uHttpStatus;
};

const tagGROUP_DEF kGroupDefs[kGroupCount] = {
    {"OK", 200},
    {"Device Busy", 503},
    {"Device Error", 500},
    {"Invalid Operation", 403},
    {"Invalid Format", 400},
    {"Content Error", 400},
    {"Reboot Required", 200},
};

void ensureErrorCodeMaps()
{
    if (g_bInitErrCode.load(std::memory_order_acquire)) {
        return;
    }
    ZRT_Guard guard(g_mutex);
    if (!g_bInitErrCode.load(std::memory_order_relaxed)) {
        initErrorCodeMaps();
    }
}

// The group of a number, or null when it is not 1 to 7. 0 and 1 are both
// taken as group 1: 1 is the success row "ok", and 0 is what callers pass for
// "no error".
const tagREST_ERR_GROUP* groupOf(ZRT_UINT32 errorNo, ZRT_UINT32& groupNo)
{
    groupNo = (errorNo == 0 || errorNo == 1) ? 1 : (errorNo >> 28);
    if (groupNo == 0 || groupNo > kGroupCount) {
        return nullptr;
    }
    return &g_aRestErrGroup[groupNo - 1];
}

// The row is searched in the map of the number's group, not in the map the row
// was entered into; that is why the group-6 row of 0x40001005 is never found.
const tagREST_ERR_DESC* rowOf(const tagREST_ERR_GROUP& group, ZRT_UINT32 errorNo)
{
    REST_ERR_MAP::const_iterator found = group.pErrMap->find(errorNo);
    return found == group.pErrMap->end() ? nullptr : &found->second;
}

}  // namespace

void initErrorCodeMaps()
{
    // Map assignment, so that a number entered twice keeps its later row.
    for (size_t i = 0; i < g_nRestErrRowCount; ++i) {
        const tagREST_ERR_ROW& row = g_aRestErrRows[i];
        (*kGroupMaps[row.uGroup - 1])[row.uErrorNo].SetParam(row.pSubStatusName, row.pErrorMsg);
    }
    for (ZRT_UINT32 g = 0; g < kGroupCount; ++g) {
        g_aRestErrGroup[g].SetParam(kGroupMaps[g], kGroupDefs[g].pStatusString, kGroupDefs[g].uHttpStatus);
    }
    g_bInitErrCode.store(true, std::memory_order_release);
}

int getResponseStatusByErrorNo(ZRT_UINT32 errorNo, Json::Value& status, ZRT_UINT32& httpStatus)
{
    ensureErrorCodeMaps();
    ZRT_UINT32 groupNo = 0;
    const tagREST_ERR_GROUP* group = groupOf(errorNo, groupNo);
    if (group == nullptr) {
        return 0;
    }
    const tagREST_ERR_DESC* row = rowOf(*group, errorNo);
    if (row == nullptr) {
        return 0;
    }
    status = Json::Value();
    status["statusCode"] = static_cast<Json::UInt>(groupNo);
    status["statusString"] = group->pStatusString;
    status["subStatusCode"] = row->pSubStatusName;
    status["errorCode"] = static_cast<Json::UInt>(errorNo);
    // A row without a message still carries the key, as an empty string.
    status["errorMsg"] = row->pErrorMsg != nullptr ? row->pErrorMsg : "";
    httpStatus = group->uHttpStatus;
    return 1;
}

int getHttpStatusCodeByErrorNo(ZRT_UINT32 errorNo, ZRT_UINT32& httpStatus)
{
    ensureErrorCodeMaps();
    ZRT_UINT32 groupNo = 0;
    const tagREST_ERR_GROUP* group = groupOf(errorNo, groupNo);
    if (group == nullptr) {
        return 0;
    }
    // Only the group decides, so a number of a valid group without a row also
    // succeeds. The 401 for "badAuthorization" exists only in this lookup: the
    // ResponseStatus document of the same number reports the group's 403, and
    // clients see both; the difference is intended (Q10).
    httpStatus = errorNo == kRestBadAuthorization ? 401 : group->uHttpStatus;
    return 1;
}

int getDescByErrorNo(std::string& desc, ZRT_UINT32 errorNo)
{
    ensureErrorCodeMaps();
    ZRT_UINT32 groupNo = 0;
    const tagREST_ERR_GROUP* group = groupOf(errorNo, groupNo);
    if (group == nullptr) {
        return 0;
    }
    const tagREST_ERR_DESC* row = rowOf(*group, errorNo);
    if (row == nullptr) {
        return 0;
    }
    // The description callers want is the sub-status name, not the message.
    desc = row->pSubStatusName;
    return 1;
}

}  // namespace HttpWrapper
