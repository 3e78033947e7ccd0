#include <gtest/gtest.h>

#include <string>

#include "errors/RestErrorRows.h"
#include "errors/RestErrorTable.h"

using namespace HttpWrapper;

namespace {

const char* const kStatusStrings[] = {
    "OK", "Device Busy", "Device Error", "Invalid Operation", "Invalid Format", "Content Error", "Reboot Required"};
const ZRT_UINT32 kGroupHttpStatus[] = {200, 503, 500, 403, 400, 400, 200};

// The rule written above the row list.
bool publishedWithoutMessage(const tagREST_ERR_ROW& row)
{
    bool streamAccess = (row.uErrorNo >> 12) == 0x4000A;
    bool lateClusterRows = row.uGroup == 4 && row.uErrorNo >= 0x40001133 && row.uErrorNo < 0x4000A000;
    bool lateContentRows = row.uGroup == 6 && row.uErrorNo >= 0x60000054;
    return streamAccess || lateClusterRows || lateContentRows;
}

const tagREST_ERR_DESC* rowInMap(ZRT_UINT32 group, ZRT_UINT32 errorNo)
{
    std::string unused;
    getDescByErrorNo(unused, 1);  // fills the tables
    const REST_ERR_MAP& map = *g_aRestErrGroup[group - 1].pErrMap;
    REST_ERR_MAP::const_iterator found = map.find(errorNo);
    return found == map.end() ? nullptr : &found->second;
}

}  // namespace

TEST(RestErrorTable, RowListAndFilledMaps)
{
    ASSERT_EQ(611u, g_nRestErrRowCount);
    size_t perGroup[8] = {};
    size_t empty = 0;
    for (size_t i = 0; i < g_nRestErrRowCount; ++i) {
        const tagREST_ERR_ROW& row = g_aRestErrRows[i];
        ASSERT_TRUE(row.uGroup >= 1 && row.uGroup <= 7 && row.pSubStatusName && row.pErrorMsg) << i;
        ++perGroup[row.uGroup];
        bool isEmpty = row.pErrorMsg[0] == '\0';
        empty += isEmpty ? 1 : 0;
        EXPECT_EQ(publishedWithoutMessage(row), isEmpty) << std::hex << row.uErrorNo;
    }
    EXPECT_EQ(170u, empty);

    rowInMap(1, 1);
    ASSERT_TRUE(g_bInitErrCode.load());
    const size_t inserted[7] = {2, 11, 33, 435, 3, 126, 1};
    const size_t entries[7] = {2, 11, 33, 432, 3, 125, 1};  // after the numbers listed twice
    size_t total = 0;
    for (int g = 0; g < 7; ++g) {
        EXPECT_EQ(inserted[g], perGroup[g + 1]) << "group " << g + 1;
        EXPECT_EQ(entries[g], g_aRestErrGroup[g].pErrMap->size()) << "group " << g + 1;
        EXPECT_STREQ(kStatusStrings[g], g_aRestErrGroup[g].pStatusString);
        EXPECT_EQ(kGroupHttpStatus[g], g_aRestErrGroup[g].uHttpStatus);
        total += g_aRestErrGroup[g].pErrMap->size();
    }
    EXPECT_EQ(607u, total);
    EXPECT_EQ(&g_aRestErrMap4, g_aRestErrGroup[3].pErrMap);
}

TEST(RestErrorTable, IrregularRowsBehaveAsListed)
{
    std::string name;
    // Listed twice: the later row wins.
    EXPECT_TRUE(getDescByErrorNo(name, 0x4000102D) && name == "getAddedNodeInformationFailed") << name;
    EXPECT_STREQ("Failed to obtain the added node information.", rowInMap(4, 0x4000102D)->pErrorMsg);
    EXPECT_TRUE(getDescByErrorNo(name, 0x4000107E) &&
                name == "mainAndBackupNodeCannotModifyManagementNetworkInterfaceIP")
        << name;
    EXPECT_TRUE(getDescByErrorNo(name, 0x4000110D) && name == "cloudAnalysisExtractFeaturePointsFailed") << name;
    EXPECT_TRUE(getDescByErrorNo(name, 0x60000053) && name == "WANNotSupport") << name;

    // 0x40001005 sits in group 6's map but is looked up in group 4's.
    const tagREST_ERR_DESC* misfiled = rowInMap(6, 0x40001005);
    ASSERT_NE(nullptr, misfiled);
    EXPECT_STREQ("importErrorData", misfiled->pSubStatusName);
    EXPECT_STREQ("Failed to import data.", misfiled->pErrorMsg);
    Json::Value status;
    ZRT_UINT32 httpStatus = 0;
    ASSERT_EQ(1, getResponseStatusByErrorNo(0x40001005, status, httpStatus));
    EXPECT_EQ("importError", status["subStatusCode"].asString());
    EXPECT_EQ("Import failed.", status["errorMsg"].asString());
    EXPECT_EQ(403u, httpStatus);
    ASSERT_EQ(1, getResponseStatusByErrorNo(0x60000054, status, httpStatus));
    EXPECT_EQ("importErrorData", status["subStatusCode"].asString());
    EXPECT_EQ("", status["errorMsg"].asString());
}

TEST(RestErrorTable, GroupRulesOfTheLookups)
{
    ZRT_UINT32 httpStatus = 0;
    // 0 and 1 are group 1; any number of a valid group has a status, row or not.
    EXPECT_TRUE(getHttpStatusCodeByErrorNo(0, httpStatus) && httpStatus == 200);
    EXPECT_TRUE(getHttpStatusCodeByErrorNo(1, httpStatus) && httpStatus == 200);
    EXPECT_TRUE(getHttpStatusCodeByErrorNo(0x4FFFFFFF, httpStatus) && httpStatus == 403);
    // 401 only here, and only for that exact number; its ResponseStatus document carries the group's 403.
    EXPECT_TRUE(getHttpStatusCodeByErrorNo(0x40000003, httpStatus) && httpStatus == 401);
    EXPECT_TRUE(getHttpStatusCodeByErrorNo(0x4000A000, httpStatus) && httpStatus == 403);

    Json::Value status;
    status["stale"] = true;
    ASSERT_EQ(1, getResponseStatusByErrorNo(0x70000001, status, httpStatus));
    EXPECT_FALSE(status.isMember("stale"));
    EXPECT_EQ(7u, status["statusCode"].asUInt());
    EXPECT_EQ("Reboot Required", status["statusString"].asString());
    EXPECT_EQ(200u, httpStatus);
    // A row published without a message still carries the member: clients read it unconditionally.
    ASSERT_EQ(1, getResponseStatusByErrorNo(0x4000A009, status, httpStatus));
    EXPECT_EQ("reachDownloadLimit", status["subStatusCode"].asString());
    EXPECT_EQ(0x4000A009u, status["errorCode"].asUInt());
    EXPECT_TRUE(status.isMember("errorMsg") && status["errorMsg"].asString().empty());
    EXPECT_EQ(5u, status.size());

    std::string desc;
    EXPECT_TRUE(getDescByErrorNo(desc, 0x50000001) && desc == "badXmlFormat") << desc;

    // Groups 0 and 8 and above fail everywhere; 0 and 0x4FFFFFFF have no row.
    // A failed lookup leaves its outputs alone.
    for (ZRT_UINT32 errorNo : {0x80000001u, 0xF0000001u, 0x00000002u, 0x00000000u, 0x4FFFFFFFu}) {
        SCOPED_TRACE(errorNo);
        bool hasGroup = errorNo == 0 || errorNo == 0x4FFFFFFF;
        httpStatus = 7;
        EXPECT_EQ(hasGroup ? 1 : 0, getHttpStatusCodeByErrorNo(errorNo, httpStatus));
        httpStatus = 7;
        status = "untouched";
        EXPECT_EQ(0, getResponseStatusByErrorNo(errorNo, status, httpStatus));
        EXPECT_EQ("untouched", status.asString());
        EXPECT_EQ(7u, httpStatus);
        desc = "untouched";
        EXPECT_EQ(0, getDescByErrorNo(desc, errorNo));
        EXPECT_EQ("untouched", desc);
    }
}
