// The UDP transmitter: opening with and without a port, and a failed open that
// leaves nothing behind.
#include "transport_test_support.h"

#include <string>

#include "LogCapture.h"
#include "frame/ErrorCodes.h"
#include "transport/IocpUdpTransmitter.h"

using namespace HttpWrapper;
using namespace transport_test;

namespace {

struct Datagram {
    char buffer[64] = {};
    ZRT_ADDR_T from{};
    unsigned long bytes = 0;
    Counter done;
};

void onDatagram(unsigned long error, unsigned long bytes, void* context)
{
    Datagram* datagram = static_cast<Datagram*>(context);
    datagram->bytes = error == 0 ? bytes : 0;
    datagram->done.add();
}

// A UDP port that was free a moment ago, or the socket holding it.
int holdUdpPort(unsigned short& port)
{
    int sock = ZRT_CreateSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    ZRT_ADDR_T address;
    ZRT_MakeAddrByString(&address, "127.0.0.1", 0);
    ZRT_Bind(sock, &address);
    ZRT_GetSockName(sock, &address);
    port = ZRT_GetAddrPort(&address);
    return sock;
}

class UdpTransmitter : public QueueTest {};

TEST_F(UdpTransmitter, OpenWithoutAPortSendsAndOpenWithOneReceives)
{
    // Declared first: they outlive the transmitters and their completions.
    Datagram first;
    Datagram second;
    Counter sent;
    unsigned short port = 0;
    close(holdUdpPort(port));
    CIocpUdpTransmitter receiver(m_queue);
    ASSERT_EQ(receiver.Open("127.0.0.1", port), 0);
    CIocpUdpTransmitter sender(m_queue);
    ASSERT_EQ(sender.Open("127.0.0.1", 0), 0);

    ASSERT_EQ(receiver.RecvData(first.buffer, sizeof first.buffer, &first.from, (void*)onDatagram, &first), 0);
    ZRT_ADDR_T to;
    ASSERT_EQ(ZRT_MakeAddrByString(&to, "127.0.0.1", port), 0);
    char head[] = "HEAD";
    char payload[] = "payload";
    ASSERT_EQ(sender.SendData(head, 4, payload, 7, &to, (void*)countCompletion, &sent, 0), 0);
    ASSERT_TRUE(sent.waitFor(2));
    ASSERT_TRUE(first.done.waitFor(1));
    EXPECT_EQ(std::string(first.buffer, first.bytes), "HEAD");
    EXPECT_NE(ZRT_GetAddrPort(&first.from), 0);  // the system gave the sender a port at its first send

    // The first receive's callback and context stay: this one's are ignored.
    ASSERT_EQ(receiver.RecvData(second.buffer, sizeof second.buffer, &second.from, (void*)onDatagram, &second), 0);
    ASSERT_TRUE(first.done.waitFor(2));
    EXPECT_EQ(std::string(second.buffer, first.bytes), "payload");
    EXPECT_EQ(second.done.count(), 0);
}

TEST_F(UdpTransmitter, OpenOnAPortInUseFailsWithNothingLeftOpen)
{
    LogCapture log;
    unsigned short port = 0;
    int holder = holdUdpPort(port);
    int before = openFdCount();
    CIocpUdpTransmitter transmitter(m_queue);
    EXPECT_EQ(transmitter.Open("127.0.0.1", port), HPW_ERR_BIND);
    EXPECT_TRUE(log.contains("] [0x01930822] - HttpProtocolWrapper CIocpUdpTransmitter Open fail, ZRT_Bind<127.0.0.1:" +
                             std::to_string(port) + "> fail, errCode<98>"));
    EXPECT_EQ(openFdCount(), before);
    EXPECT_EQ(transmitter.Close(), 0);
    close(holder);
}

}  // namespace
