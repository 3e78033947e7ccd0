// The transmitters' log lines that name another module (docs/compatibility.md,
// Q19): operators search for these texts as they stand.
#include <gtest/gtest.h>

#include <unistd.h>

#include "AsyncIoKit.h"
#include "LogCapture.h"
#include "transport/IocpTcpTransmitter.h"
#include "transport/IocpUdpTransmitter.h"

using namespace HttpWrapper;

TEST(KeptTransportLines, BothTransmittersReportAFailedBufferInTheTcpClassesWords)
{
    const char kLine[] =
        "] [0x01930804] - RTSPProtocolWrapper CIocpTcpTransmitter GetBuffer Failed, \t\t\t\t  "
        "ZRT_AsyncIO_PostQueuedCompleteStatusEx fail, errCode<";
    LogCapture log;
    void* queue = ZRT_AsyncIO_CreateQueueEx_New(2);
    {
        CIocpUdpTransmitter udp(queue);
        ASSERT_EQ(udp.Open("127.0.0.1", 0), 0);
        EXPECT_EQ(udp.GetBuffer(-1), nullptr);
        EXPECT_EQ(log.count(kLine), 1u);
        udp.Close();
    }
    {
        int client = -1;
        int server = -1;
        ASSERT_TRUE(testsupport::makeTcpPair(client, server));
        CIocpTcpTransmitter tcp(queue);
        ASSERT_EQ(tcp.Open(client), 0);
        EXPECT_EQ(tcp.GetBuffer(-1), nullptr);
        EXPECT_EQ(log.count(kLine), 2u);
        tcp.Close();
        close(server);
    }
    EXPECT_EQ(ZRT_AsyncIO_DestroyQueueEx(queue), 0);
}
