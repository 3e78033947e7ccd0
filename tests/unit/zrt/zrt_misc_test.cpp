#include <gtest/gtest.h>

#include <string.h>
#include <time.h>

#include <set>

#include <zrt/zrt.h>

TEST(ZrtInit, IsReferenceCounted)
{
    int before = ZRT_InitCount();
    EXPECT_EQ(ZRT_InitEx(), 0);
    EXPECT_EQ(ZRT_InitEx(), 0);
    EXPECT_EQ(ZRT_InitCount(), before + 2);
    EXPECT_EQ(ZRT_FiniEx(), 0);
    EXPECT_EQ(ZRT_FiniEx(), 0);
    EXPECT_EQ(ZRT_InitCount(), before);
    if (before == 0) {
        EXPECT_EQ(ZRT_FiniEx(), 0);  // an unmatched stop is harmless
        EXPECT_EQ(ZRT_InitCount(), 0);
    }
}

TEST(ZrtClock, TicksAreMonotonicAndTimeIsWallClock)
{
    ZRT_UINT64 first = ZRT_GetTimeTick64();
    ZRT_UINT64 second = ZRT_GetTimeTick64();
    EXPECT_LE(first, second);
    EXPECT_EQ((ZRT_UINT32)second - ZRT_GetTimeTick() <= 1000u, true);
    ZRT_INT64 now = ZRT_TimeNow();
    EXPECT_NEAR((double)(now / 1000000), (double)time(nullptr), 2.0);
}

// The plug-in's digest nonces take their random part from here.
TEST(ZrtText, RandomNumbersStayInRangeAndVary)
{
    std::set<ZRT_INT32> seen;
    for (int i = 0; i < 1000; ++i) {
        ZRT_INT32 value = ZRT_Rand();
        ASSERT_GE(value, 0);
        seen.insert(value);
    }
    EXPECT_GT(seen.size(), 990u);
}

TEST(ZrtText, Atoi32ToleratesNullAndTrailingText)
{
    EXPECT_EQ(ZRT_Atoi32(nullptr), 0);
    EXPECT_EQ(ZRT_Atoi32(""), 0);
    EXPECT_EQ(ZRT_Atoi32("70000abc"), 70000);
}

TEST(ZrtText, ExecutablePathNamesTheRunningBinary)
{
    char path[512];
    int length = ZRT_GetCurExePath(path, sizeof path);
    ASSERT_GT(length, 0);
    EXPECT_EQ((int)strlen(path), length);
    EXPECT_NE(strstr(path, "unit_zrt"), nullptr);
    EXPECT_EQ(ZRT_GetCurExePath(path, 1), -1);
}

TEST(ZrtDso, LoadsResolvesAndUnloadsALibraryAndFailsWithAReason)
{
    void* dso = ZRT_LoadDSo(ZRT_TEST_DSO_PATH);
    ASSERT_NE(dso, nullptr) << ZRT_GetDsoError();
    typedef int (*Answer)(int);
    Answer answer = reinterpret_cast<Answer>(ZRT_GetDsoSym(dso, "zrt_test_answer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(20), 41);
    const char* name = static_cast<const char*>(ZRT_GetDsoSym(dso, "zrt_test_name"));
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, "zrt-test-dso");
    EXPECT_EQ(ZRT_GetDsoSym(dso, "no_such_symbol"), nullptr);
    EXPECT_EQ(ZRT_UnloadDSo(dso), 0);

    EXPECT_EQ(ZRT_LoadDSo("/nonexistent/libnothing.so"), nullptr);
    EXPECT_NE(ZRT_GetSystemLastError(), 0);
    EXPECT_EQ(ZRT_LoadDSo(nullptr), nullptr);
    EXPECT_EQ(ZRT_UnloadDSo(nullptr), -1);
}
