#include <gtest/gtest.h>

#include <thread>

#include "frame/ErrorCodeManager.h"

using HttpWrapper::CErrorCodeManager;
using HttpWrapper::singleton;

TEST(ErrorCodeManager, CodesArePerThreadAndSurviveFini)
{
    CErrorCodeManager* manager = singleton<CErrorCodeManager>::instance();
    std::thread neverSet([&] { EXPECT_EQ(manager->GetErrCode(), 0); });
    neverSet.join();

    int seenByOther = -1;
    std::thread writer([&] {
        manager->SetErrCode(0x19308C3);
        std::thread other([&] { seenByOther = manager->GetErrCode(); });
        other.join();
        EXPECT_EQ(manager->GetErrCode(), 0x19308C3);
        manager->Fini();
        EXPECT_EQ(manager->GetErrCode(), 0x19308C3);  // Fini leaves the map
        manager->SetErrCode(0);
        EXPECT_EQ(manager->GetErrCode(), 0);
    });
    writer.join();
    EXPECT_EQ(seenByOther, 0);
    EXPECT_EQ(singleton<CErrorCodeManager>::instance(), manager);
}
