#include "transport/IocpUdpTransmitter.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "frame/ErrorCodes.h"
#include "frame/Log.h"
#include "transport/SocketHelpers.h"

namespace HttpWrapper {

void pfnIocpUdpCB(unsigned long errorCode, unsigned long bytes, void* context)
{
    DispatchIocpCompletion(errorCode, bytes, context);
}

CIocpUdpTransmitter::CIocpUdpTransmitter(void* queue)
    : m_hAsyncIocpQueue(queue),
      m_iSocketFd(ZRT_INVALID_SOCKET),
      m_pSendData(nullptr),
      m_pRecvData(nullptr),
      m_uLastOverLimitLogTick(0),
      m_iOpen(0)
{
}

CIocpUdpTransmitter::~CIocpUdpTransmitter()
{
    Close();
    m_hAsyncIocpQueue = ZRT_INVALID_ASYNCIOQUEUE;
    m_pSendData = nullptr;
    m_pRecvData = nullptr;
}

int CIocpUdpTransmitter::failOpen(int code, bool bound)
{
    if (bound) {
        ZRT_AsyncIO_UnBindIOHandleEx(m_iSocketFd, m_hAsyncIocpQueue);
    }
    if (m_iSocketFd != ZRT_INVALID_SOCKET) {
        ZRT_CloseSocket(m_iSocketFd, 0);
        m_iSocketFd = ZRT_INVALID_SOCKET;
    }
    delete m_pSendData;
    m_pSendData = nullptr;
    delete m_pRecvData;
    m_pRecvData = nullptr;
    return code;
}

int CIocpUdpTransmitter::Open(const char* ip, unsigned short port)
{
    // A queue the server has not created yet (null) is as unusable as the
    // runtime's invalid handle.
    if (m_hAsyncIocpQueue == ZRT_INVALID_ASYNCIOQUEUE || m_hAsyncIocpQueue == nullptr) {
        HPW_LOGE(HPW_ERR_ASYNC_QUEUE,
                 "HttpProtocolWrapper CIocpUdpTransmitter Open fail, m_hAsyncIocpQueue == ZRT_INVALID_ASYNCIOQUEUE");
        return HPW_ERR_ASYNC_QUEUE;
    }
    m_iSocketFd = ZRT_CreateSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (m_iSocketFd == ZRT_INVALID_SOCKET) {
        HPW_LOGE(HPW_ERR_THREAD,
                 "HttpProtocolWrapper CIocpUdpTransmitter Open fail, ZRT_CreateSocket fail, errCode<%d>",
                 ZRT_GetSystemLastError());
        return failOpen(HPW_ERR_THREAD, false);
    }
    // Port 0 leaves the socket unbound: the system picks a port at the first send.
    if (port != 0) {
        ZRT_ADDR_T address;
        if (ZRT_MakeAddrByString(&address, ip, port) != 0) {
            HPW_LOGE(HPW_ERR_ADDRESS,
                     "HttpProtocolWrapper CIocpUdpTransmitter Open fail, ZRT_MakeAddrByString<%s:%d> fail, errCode<%d>",
                     ip != nullptr ? ip : "", port, ZRT_GetSystemLastError());
            return failOpen(HPW_ERR_ADDRESS, false);
        }
        if (ZRT_Bind(m_iSocketFd, &address) != 0) {
            HPW_LOGE(HPW_ERR_BIND,
                     "HttpProtocolWrapper CIocpUdpTransmitter Open fail, ZRT_Bind<%s:%d> fail, errCode<%d>",
                     ip != nullptr ? ip : "", port, ZRT_GetSystemLastError());
            return failOpen(HPW_ERR_BIND, false);
        }
    }
    if (ZRT_SetBuffSize(m_iSocketFd, TRANSPORT_SOCKET_BUFFER_SIZE, TRANSPORT_SOCKET_BUFFER_SIZE) != 0) {
        HPW_LOGE(HPW_ERR_SOCKET_OPTION,
                 "HttpProtocolWrapper CIocpUdpTransmitter Open fail, ZRT_SetBuffSize fail, errCode<%d>",
                 ZRT_GetSystemLastError());
        return failOpen(HPW_ERR_SOCKET_OPTION, false);
    }
    // Set after the bind, so it does not affect it. The order is intended.
    if (ZRT_SetReuseAddr(m_iSocketFd, 1) != 0) {
        HPW_LOGE(HPW_ERR_SOCKET_OPTION,
                 "HttpProtocolWrapper CIocpUdpTransmitter Open fail, ZRT_SetReuseAddr fail, errCode<%d>",
                 ZRT_GetSystemLastError());
        return failOpen(HPW_ERR_SOCKET_OPTION, false);
    }
    if (ZRT_AsyncIO_BindIOHandleToQueueEx(m_iSocketFd, m_hAsyncIocpQueue) != 0) {
        HPW_LOGE(
            HPW_ERR_SOCKET_OPTION,
            "HttpProtocolWrapper CIocpUdpTransmitter Open fail, ZRT_AsyncIO_BindIOHandleToQueueEx fail, errCode<%d>",
            ZRT_GetSystemLastError());
        return failOpen(HPW_ERR_SOCKET_OPTION, false);
    }
    if (ZRT_AsyncIO_BindCallBackToIOHandleEx(m_iSocketFd, pfnIocpUdpCB) != 0) {
        // This line carries error code 0, not the system's; it is intended and
        // kept as operators know it (Q20).
        HPW_LOGE(
            HPW_ERR_SOCKET_OPTION,
            "HttpProtocolWrapper CIocpUdpTransmitter Open fail, ZRT_AsyncIO_BindCallBackToIOHandleEx fail, errCode<%d>",
            0);
        return failOpen(HPW_ERR_SOCKET_OPTION, true);
    }
    m_pSendData = NewIocpData(IOCP_DATA_SEND);
    m_pRecvData = m_pSendData != nullptr ? NewIocpData(IOCP_DATA_RECV) : nullptr;
    if (m_pRecvData == nullptr) {
        HPW_LOGE(HPW_ERR_NO_MEMORY, "HttpProtocolWrapper CIocpUdpTransmitter Open fail, new IOCP_DATA fail");
        return failOpen(HPW_ERR_NO_MEMORY, true);
    }
    m_iOpen = 1;
    return 0;
}

int CIocpUdpTransmitter::SendData(char* data, int length, ZRT_ADDR_T* to, void* callback, void* context, int checkLimit)
{
    return SendData(nullptr, 0, data, length, to, callback, context, checkLimit);
}

int CIocpUdpTransmitter::SendData(char* head, int headLength, char* data, int length, ZRT_ADDR_T* to, void* callback,
                                  void* context, int checkLimit)
{
    IOCP_DATA* sendData = m_pSendData;
    if (sendData == nullptr) {
        return -1;
    }
    if (checkLimit == 1 && sendData->nPending.load() > GlobalSendLimit()) {
        if (TakeOverLimitLogTurn(m_uLastOverLimitLogTick)) {
            char addressText[32];
            HPW_LOGD("HttpProtocolWrapper CIocpUdpTransmitter SendData fail, Addr<%s,%d>, Over MaxCount<%d>",
                     ZRT_GetAddrString(to, addressText, sizeof addressText), ZRT_GetAddrPort(to), GlobalSendLimit());
        }
        return IOCP_SEND_OVER_LIMIT;
    }
    // The record has one owner: the first send's callback and context stay.
    SetIocpCallback(sendData, callback, context, true);

    ZRT_Guard guard(m_lock);
    if (head != nullptr && headLength >= 1) {
        ++sendData->nPending;
        if (ZRT_AsyncIO_SendToEx(m_iSocketFd, head, headLength, sendData, to, pfnIocpUdpCB) != 0) {
            --sendData->nPending;
            return -1;
        }
    }
    ++sendData->nPending;
    if (ZRT_AsyncIO_SendToEx(m_iSocketFd, data, length, sendData, to, pfnIocpUdpCB) != 0) {
        --sendData->nPending;
        return -1;
    }
    return 0;
}

int CIocpUdpTransmitter::RecvData(char* buffer, int length, ZRT_ADDR_T* from, void* callback, void* context)
{
    IOCP_DATA* recvData = m_pRecvData;
    if (recvData == nullptr) {
        return -1;
    }
    // Unlike the TCP transmitter, the first receive's callback stays.
    SetIocpCallback(recvData, callback, context, true);
    ++recvData->nPending;
    if (ZRT_AsyncIO_RecvFromEx(m_iSocketFd, buffer, length, recvData, from, pfnIocpUdpCB) != 0) {
        HPW_LOGD(
            "HttpProtocolWrapper CIocpUdpTransmitter RecvData Failed, \t\t\t\t  ZRT_AsyncIO_RecvFromEx fail, "
            "errCode<%d>",
            ZRT_GetSystemLastError());
        --recvData->nPending;
        return -1;
    }
    return 0;
}

int CIocpUdpTransmitter::PostIoEvent(int errorCode, unsigned int bytes)
{
    IOCP_DATA* recvData = m_pRecvData;
    if (recvData == nullptr || !HasIocpCallback(recvData)) {
        return -1;
    }
    ++recvData->nPending;
    if (ZRT_AsyncIO_PostQueuedCompleteStatusEx(m_hAsyncIocpQueue, m_iSocketFd, static_cast<unsigned long>(errorCode),
                                               bytes, recvData, pfnIocpUdpCB) != 0) {
        // Names the TCP class: the line is shared with it as operators know it (Q19).
        HPW_LOGD(
            "HttpProtocolWrapper CIocpTcpTransmitter PostIoEvent Failed, \t\t\t\t  "
            "ZRT_AsyncIO_PostQueuedCompleteStatusEx fail, errCode<%d>",
            ZRT_GetSystemLastError());
        --recvData->nPending;
        return -1;
    }
    return 0;
}

char* CIocpUdpTransmitter::GetBuffer(int size)
{
    if (m_pRecvData == nullptr) {
        return nullptr;
    }
    char* buffer = NewIocpBuffer(m_pRecvData, size);
    if (buffer == nullptr) {
        // Same line as the TCP transmitter's, other module's name included (Q19).
        HPW_LOGE(HPW_ERR_NO_MEMORY,
                 "RTSPProtocolWrapper CIocpTcpTransmitter GetBuffer Failed, \t\t\t\t  "
                 "ZRT_AsyncIO_PostQueuedCompleteStatusEx fail, errCode<%d>",
                 ZRT_GetSystemLastError());
    }
    return buffer;
}

int CIocpUdpTransmitter::Close()
{
    if (m_iOpen == 0) {
        return 0;
    }
    m_iOpen = 0;
    // The records are freed at once, without waiting for their pending counts:
    // the completion queue delivers nothing for a socket once it is unbound and
    // waits for a completion of it that is already running.
    CloseIocpBinding(m_hAsyncIocpQueue, m_iSocketFd, m_pRecvData, m_pSendData);
    return 0;
}

}  // namespace HttpWrapper
