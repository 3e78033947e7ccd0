#include <gtest/gtest.h>

#include <thread>

#include "frame/ErrorCodeManager.h"

using HttpWrapper::CErrorCodeManager;
using HttpWrapper::singleton;

// That a code is per thread is pinned through the exported interface by the
// host test; here that Fini keeps the codes, as threads still read them after it.
TEST(ErrorCodeManager, FiniKeepsEveryThreadsCode)
{
    CErrorCodeManager* manager = singleton<CErrorCodeManager>::instance();
    std::thread writer([&] {
        manager->SetErrCode(0x19308C3);
        manager->Fini();
        EXPECT_EQ(manager->GetErrCode(), 0x19308C3);
    });
    writer.join();
    EXPECT_EQ(manager->GetErrCode(), 0);
}
