// One connected TCP socket on the runtime's completion queue. The raw audio
// channel's sessions read their request through it, and the talk sessions move
// audio both ways through it.
//
// Ownership: after Open is called the transmitter owns the socket, even when
// Open fails (it then has closed it already). Close unbinds and closes it.
//
// Owners' rules:
// - a buffer given to RecvData stays valid until its completion arrives or
//   Close returns; a buffer given to SendData is free when the call returns
//   (the completion queue copies what the socket cannot take at once);
// - at most one receive is outstanding;
// - Close waits for an owner callback running on another thread, so it must not
//   be called while holding a lock that the callbacks take, nor from inside one
//   of this transmitter's own callbacks (owners queue their destruction instead).
#ifndef HTTPWRAPPER_TRANSPORT_IOCPTCPTRANSMITTER_H
#define HTTPWRAPPER_TRANSPORT_IOCPTCPTRANSMITTER_H

#include <zrt/zrt.h>

#include <atomic>

#include "transport/IocpData.h"

namespace HttpWrapper {

// Completion trampoline of every TCP transmitter; the context is an IOCP_DATA.
void pfnIocpTcpCB(unsigned long errorCode, unsigned long bytes, void* context);

class CIocpTcpTransmitter {
public:
    explicit CIocpTcpTransmitter(void* queue);
    CIocpTcpTransmitter(void* queue, int maxCount);
    ~CIocpTcpTransmitter();
    CIocpTcpTransmitter(const CIocpTcpTransmitter&) = delete;
    CIocpTcpTransmitter& operator=(const CIocpTcpTransmitter&) = delete;

    // 0 or a module error code. Called once per transmitter.
    int Open(int socket);
    int SendData(char* data, int length, void* callback, void* context, int checkLimit);
    // Posts head (when headLength >= 1) and data back to back: no other send of
    // this transmitter comes between them. 0, -1, or IOCP_SEND_OVER_LIMIT when
    // checkLimit is 1 and the backlog is over the limit. Only the first send's
    // callback and context are kept.
    int SendData(char* head, int headLength, char* data, int length, void* callback, void* context, int checkLimit);
    // 0 or -1. Every call replaces the receive callback and context; a null
    // callback silences the completions that follow.
    int RecvData(char* buffer, int length, void* callback, void* context);
    // Runs the receive callback on a queue thread with these values. 0 or -1.
    int PostIoEvent(int errorCode, unsigned int bytes);
    // Zeroed receive storage of size + 1 bytes, freed by Close; null on failure.
    char* GetBuffer(int size);
    int Close();

private:
    int failOpen(int code, bool bound);

    void* m_hAsyncIocpQueue;
    int m_iConnSocketFd;
    IOCP_DATA* m_pSendData;
    IOCP_DATA* m_pRecvData;
    ZRT_Mutex m_lock;  // keeps a head and its payload adjacent in the send order
    std::atomic<ZRT_UINT32> m_uLastOverLimitLogTick;
    int m_iOpen;
    int m_iMaxCount;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TRANSPORT_IOCPTCPTRANSMITTER_H
