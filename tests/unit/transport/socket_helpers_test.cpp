// The plain socket helpers: failures log their step and leave no socket open.
#include "transport_test_support.h"

#include <fcntl.h>

#include "LogCapture.h"
#include "transport/SocketHelpers.h"

using namespace HttpWrapper;
using namespace transport_test;

TEST(SocketHelpers, FailuresLogTheirStepAndLeaveNoSocketOpen)
{
    LogCapture log;
    int listener = Listen("127.0.0.1", 0);
    ASSERT_GE(listener, 0);
    ZRT_ADDR_T address;
    ASSERT_EQ(ZRT_GetSockName(listener, &address), 0);
    int before = openFdCount();
    EXPECT_EQ(Listen("127.0.0.1", ZRT_GetAddrPort(&address)), -1);
    EXPECT_TRUE(log.contains("STREAMerror|[Listen("));
    EXPECT_TRUE(log.contains("] [0x01930822] - HttpProtocolWrapper Listen fail, ZRT_Bind fail, errCode<98>"));
    // The address in this line always reads 0.0.0.0.
    EXPECT_EQ(Listen("localhost", 8080), -1);
    EXPECT_TRUE(log.contains("Listen fail, ZRT_MakeAddrByString fail, Addr<0.0.0.0:8080>, errCode<"));
    EXPECT_EQ(openFdCount(), before);

    // CloseSocket closes and forgets a socket, and leaves an invalid one alone.
    int number = listener;
    CloseSocket(listener);
    EXPECT_EQ(listener, -1);
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    CloseSocket(listener);
    EXPECT_EQ(listener, -1);
    EXPECT_EQ(openFdCount(), before - 1);
}
