// The datagram twin of CIocpTcpTransmitter: a UDP socket of its own on the
// completion queue, with the same records, callback contract and owners' rules.
// It is part of the transport interface for completeness; the audio channel
// itself uses TCP only.
#ifndef HTTPWRAPPER_TRANSPORT_IOCPUDPTRANSMITTER_H
#define HTTPWRAPPER_TRANSPORT_IOCPUDPTRANSMITTER_H

#include <zrt/zrt.h>

#include <atomic>

#include "transport/IocpData.h"

namespace HttpWrapper {

// Completion trampoline of every UDP transmitter; the context is an IOCP_DATA.
void pfnIocpUdpCB(unsigned long errorCode, unsigned long bytes, void* context);

class CIocpUdpTransmitter {
public:
    explicit CIocpUdpTransmitter(void* queue);
    ~CIocpUdpTransmitter();
    CIocpUdpTransmitter(const CIocpUdpTransmitter&) = delete;
    CIocpUdpTransmitter& operator=(const CIocpUdpTransmitter&) = delete;

    // Creates the socket; binds it to ip:port unless port is 0. 0 or a module code.
    int Open(const char* ip, unsigned short port);
    int SendData(char* data, int length, ZRT_ADDR_T* to, void* callback, void* context, int checkLimit);
    // Head (when headLength >= 1) and data go out as two datagrams, back to back.
    // 0, -1, or IOCP_SEND_OVER_LIMIT.
    int SendData(char* head, int headLength, char* data, int length, ZRT_ADDR_T* to, void* callback, void* context,
                 int checkLimit);
    // The first receive's callback and context stay; from receives the sender.
    int RecvData(char* buffer, int length, ZRT_ADDR_T* from, void* callback, void* context);
    int PostIoEvent(int errorCode, unsigned int bytes);
    char* GetBuffer(int size);
    int Close();

private:
    int failOpen(int code, bool bound);

    void* m_hAsyncIocpQueue;
    int m_iSocketFd;
    IOCP_DATA* m_pSendData;
    IOCP_DATA* m_pRecvData;
    ZRT_Mutex m_lock;  // keeps a head and its payload adjacent in the send order
    std::atomic<ZRT_UINT32> m_uLastOverLimitLogTick;
    int m_iOpen;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TRANSPORT_IOCPUDPTRANSMITTER_H
