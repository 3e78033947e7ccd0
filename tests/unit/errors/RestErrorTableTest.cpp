#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "errors/RestErrorRows.h"
#include "errors/RestErrorTable.h"

using namespace HttpWrapper;

namespace {

const tagREST_ERR_DESC* rowInMap(ZRT_UINT32 group, ZRT_UINT32 errorNo)
{
    std::string unused;
    getDescByErrorNo(unused, 1);  // fills the tables
    const REST_ERR_MAP& map = *g_aRestErrGroup[group - 1].pErrMap;
    REST_ERR_MAP::const_iterator found = map.find(errorNo);
    return found == map.end() ? nullptr : &found->second;
}

std::string descOf(ZRT_UINT32 errorNo)
{
    std::string desc = "<none>";
    getDescByErrorNo(desc, errorNo);
    return desc;
}

}  // namespace

// Clients rely on "subStatusCode" alone for the blocks published without a
// message, and on "errorMsg" for every other row; a row edited by mistake
// breaks that rule.
TEST(RestErrorTable, ExactlyTheLateBlocksHaveNoMessage)
{
    for (size_t i = 0; i < g_nRestErrRowCount; ++i) {
        const tagREST_ERR_ROW& row = g_aRestErrRows[i];
        const bool streamAccess = (row.uErrorNo >> 12) == 0x4000A;
        const bool lateClusterRows = row.uGroup == 4 && row.uErrorNo >= 0x40001133 && row.uErrorNo < 0x4000A000;
        const bool lateContentRows = row.uGroup == 6 && row.uErrorNo >= 0x60000054;
        EXPECT_EQ(streamAccess || lateClusterRows || lateContentRows, row.pErrorMsg[0] == '\0')
            << std::hex << row.uErrorNo;
    }
}

TEST(RestErrorTable, IrregularRowsBehaveAsListed)
{
    // Listed twice: the later row wins.
    EXPECT_EQ(descOf(0x4000102D), "getAddedNodeInformationFailed");
    EXPECT_STREQ(rowInMap(4, 0x4000102D)->pErrorMsg, "Failed to obtain the added node information.");
    EXPECT_EQ(descOf(0x4000107E), "mainAndBackupNodeCannotModifyManagementNetworkInterfaceIP");
    EXPECT_EQ(descOf(0x4000110D), "cloudAnalysisExtractFeaturePointsFailed");
    EXPECT_EQ(descOf(0x60000053), "WANNotSupport");

    // 0x40001005 sits in group 6's map but is looked up in group 4's.
    const tagREST_ERR_DESC* misfiled = rowInMap(6, 0x40001005);
    ASSERT_NE(misfiled, nullptr);
    EXPECT_STREQ(misfiled->pSubStatusName, "importErrorData");
    Json::Value status;
    ZRT_UINT32 httpStatus = 0;
    ASSERT_EQ(getResponseStatusByErrorNo(0x40001005, status, httpStatus), 1);
    EXPECT_EQ(status["subStatusCode"].asString() + "|" + status["errorMsg"].asString(), "importError|Import failed.");
    EXPECT_EQ(httpStatus, 403u);
    ASSERT_EQ(getResponseStatusByErrorNo(0x60000054, status, httpStatus), 1);
    EXPECT_EQ(status["subStatusCode"].asString() + "|" + status["errorMsg"].asString(), "importErrorData|");
}

TEST(RestErrorTable, GroupRulesOfTheLookups)
{
    // 0 and 1 are group 1; any number of a valid group has a status, row or not.
    // 401 only here, and only for that exact number: its ResponseStatus document carries the group's 403.
    const struct {
        ZRT_UINT32 errorNo, httpStatus;
    } statuses[] = {{0, 200}, {1, 200}, {0x4FFFFFFF, 403}, {0x40000003, 401}, {0x4000A000, 403}};
    for (const auto& s : statuses) {
        ZRT_UINT32 httpStatus = 0;
        EXPECT_EQ(getHttpStatusCodeByErrorNo(s.errorNo, httpStatus), 1) << std::hex << s.errorNo;
        EXPECT_EQ(httpStatus, s.httpStatus) << std::hex << s.errorNo;
    }

    // The document is replaced, not merged into.
    Json::Value status;
    status["stale"] = true;
    ZRT_UINT32 httpStatus = 0;
    ASSERT_EQ(getResponseStatusByErrorNo(0x70000001, status, httpStatus), 1);
    EXPECT_EQ(status.getMemberNames(),
              (std::vector<std::string>{"errorCode", "errorMsg", "statusCode", "statusString", "subStatusCode"}));
    EXPECT_EQ(httpStatus, 200u);

    // Groups 0 and 8 and above fail everywhere; 0 and 0x4FFFFFFF have no row.
    // A failed lookup leaves its outputs alone.
    for (ZRT_UINT32 errorNo : {0x80000001u, 0xF0000001u, 0x00000002u, 0x00000000u, 0x4FFFFFFFu}) {
        SCOPED_TRACE(errorNo);
        httpStatus = 7;
        EXPECT_EQ(getHttpStatusCodeByErrorNo(errorNo, httpStatus), errorNo == 0 || errorNo == 0x4FFFFFFF ? 1 : 0);
        httpStatus = 7;
        status = "untouched";
        EXPECT_EQ(getResponseStatusByErrorNo(errorNo, status, httpStatus), 0);
        EXPECT_EQ(status.asString() + std::to_string(httpStatus), "untouched7");
        EXPECT_EQ(descOf(errorNo), "<none>");
    }
}
