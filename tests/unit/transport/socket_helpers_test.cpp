// The plain socket helpers: failures log their step and leave no socket open.
#include "transport_test_support.h"

#include <fcntl.h>

#include "LogCapture.h"
#include "transport/SocketHelpers.h"

using namespace HttpWrapper;
using namespace transport_test;

namespace {

unsigned short portOf(int sock)
{
    ZRT_ADDR_T address;
    return ZRT_GetSockName(sock, &address) == 0 ? ZRT_GetAddrPort(&address) : 0;
}

TEST(SocketHelpers, ListenOnAPortInUseFailsWithTheBindLineAndNoSocketLeft)
{
    LogCapture log;
    int listener = Listen("127.0.0.1", 0);
    ASSERT_GE(listener, 0);
    ASSERT_NE(portOf(listener), 0);
    int before = openFdCount();
    EXPECT_EQ(Listen("127.0.0.1", portOf(listener)), -1);
    EXPECT_TRUE(log.contains("STREAMerror|[Listen("));
    EXPECT_TRUE(log.contains("] [0x01930822] - HttpProtocolWrapper Listen fail, ZRT_Bind fail, errCode<98>"));
    // The address in this line always reads 0.0.0.0.
    EXPECT_EQ(Listen("localhost", 8080), -1);
    EXPECT_TRUE(log.contains("Listen fail, ZRT_MakeAddrByString fail, Addr<0.0.0.0:8080>, errCode<"));
    EXPECT_EQ(openFdCount(), before);
    CloseSocket(listener);
}

TEST(SocketHelpers, CloseSocketOnInvalidLeavesItAndClosesNothing)
{
    int before = openFdCount();
    int invalid = -1;
    CloseSocket(invalid);
    EXPECT_EQ(invalid, -1);
    EXPECT_EQ(openFdCount(), before);

    int sock = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    int number = sock;
    CloseSocket(sock);
    EXPECT_EQ(sock, -1);
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
}

}  // namespace
