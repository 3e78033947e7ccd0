// The lazy filling of the REST tables, observed in a fresh process: the
// threadsafe death-test style re-executes this binary for the statement, so
// the tables start unfilled there whatever other tests did before.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "errors/RestErrorTable.h"

using namespace HttpWrapper;

namespace {

bool lookUp()
{
    Json::Value status;
    ZRT_UINT32 httpStatus = 0;
    std::string desc;
    return getResponseStatusByErrorNo(0x40000003, status, httpStatus) == 1 && httpStatus == 403 &&
           status["errorMsg"].asString() == "Authentication failed." && getDescByErrorNo(desc, 0x4000102D) == 1 &&
           desc == "getAddedNodeInformationFailed";
}

// The exit code names the first check that failed: 0 when none did.
int firstLookupsFromManyThreads()
{
    if (g_bInitErrCode.load()) {
        return 2;  // filled before the first lookup
    }
    std::atomic<int> started(0), finished(0), wrong(0);
    std::vector<std::thread> threads;
    bool answeredBeforeFill = false;
    {
        // Holding the fill lock lines every thread up on the unfilled tables,
        // so that they all race for the fill when it is released.
        ZRT_Guard holdFill(g_mutex);
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&] {
                ++started;
                wrong += lookUp() ? 0 : 1;
                ++finished;
            });
        }
        while (started.load() < 8) {
            std::this_thread::yield();
        }
        ZRT_Sleep(50);  // time for a lookup that does not wait to finish; a slow machine only hides it
        answeredBeforeFill = finished.load() != 0;
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (answeredBeforeFill || wrong.load() != 0) {
        return 3;  // a first lookup did not wait for the fill or saw wrong tables
    }
    // Filled once per process: a later lookup would betray a second fill by
    // restoring this entry.
    g_aRestErrMap7[0x70000001].SetParam("marker", "marker");
    std::string desc;
    return getDescByErrorNo(desc, 0x70000001) == 1 && desc == "marker" ? 0 : 4;
}

}  // namespace

TEST(RestErrorTableFill, ConcurrentFirstLookupsFillOnce)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exit(firstLookupsFromManyThreads()), ::testing::ExitedWithCode(0), "");
}
