// The transmitters' per-direction operation record. One record per direction
// (send, receive) is handed to the completion queue as the context of every
// operation of that direction; the trampolines route each completion through it
// to the owner's callback.
#ifndef HTTPWRAPPER_TRANSPORT_IOCPDATA_H
#define HTTPWRAPPER_TRANSPORT_IOCPDATA_H

#include <zrt/zrt.h>

#include <atomic>

namespace HttpWrapper {

// An owner's completion callback: error 0 with a byte count is success, 0 with
// 0 bytes on a receive means the peer closed, ZRT_ASYNCIO_ABORTED (995) means
// aborted or timed out (receivers post again), anything else is a socket error.
// It runs on a completion-queue thread.
typedef void (*IOCP_CALLBACK)(unsigned long errorCode, unsigned long bytes, void* context);

enum {
    IOCP_DATA_SEND = 0,
    IOCP_DATA_RECV = 1,
};

// Refusal of a checked send over the backlog limit.
const int IOCP_SEND_OVER_LIMIT = -180;
// Backlog limit unless the host sets g_iIocpDeepNum.
const int IOCP_DEFAULT_MAX_COUNT = 1500;
// Value of g_iIocpDeepNum that means "not set by the host".
const unsigned short IOCP_DEEP_NUM_UNSET = 65535;

struct IOCP_DATA {
    int nType = IOCP_DATA_SEND;
    // Owner's callback and context. They change together under callbackLock, a
    // leaf lock never held across a call, so a completion always pairs a
    // callback with its own context, even while the owner switches them.
    IOCP_CALLBACK pfnCallBack = nullptr;
    void* pContext = nullptr;
    // Outstanding operations, plus the 1 held while the transmitter is open.
    std::atomic<ZRT_INT32> nPending{0};
    // Guards nClosed and is held across the owner's callback, so that once
    // closing has set nClosed no owner callback runs any more.
    ZRT_Mutex lock;
    int nClosed = 0;
    char* pBuffer = nullptr;  // receive storage handed out by GetBuffer; freed on close
    ZRT_Mutex callbackLock;
};

// A record in its open state (pending 1, no callback), or null when memory is short.
IOCP_DATA* NewIocpData(int type);

// Stores callback and context; with onlyIfUnset, only when the record has no
// callback yet (the first caller wins).
void SetIocpCallback(IOCP_DATA* data, void* callback, void* context, bool onlyIfUnset);

// True when the record has a callback.
bool HasIocpCallback(IOCP_DATA* data);

// The body of both trampolines: a null record is ignored; the owner's callback
// runs unless the record is closed; the pending count drops afterwards.
void DispatchIocpCompletion(unsigned long errorCode, unsigned long bytes, void* record);

// The common end of both transmitters: no owner callback after the records are
// marked closed, the socket is unbound from the queue and closed, and the
// records and their buffers are freed. The queue delivers no completion for an
// unbound socket and waits for one already running, so the records can go at
// once, whatever their pending counts say.
void CloseIocpBinding(void* queue, int& socket, IOCP_DATA*& recvData, IOCP_DATA*& sendData);

// The host's backlog limit (g_iIocpDeepNum) when set, else the default 1500.
int GlobalSendLimit();

// Rate limit of the over-limit log line: true for the one caller that may log
// now, at most once per 5000 ms per transmitter (lastTick is the transmitter's).
bool TakeOverLimitLogTurn(std::atomic<ZRT_UINT32>& lastTick);

// Zeroed receive storage of size + 1 bytes owned by the record, or null.
char* NewIocpBuffer(IOCP_DATA* data, int size);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TRANSPORT_IOCPDATA_H
