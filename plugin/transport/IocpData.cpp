#include "transport/IocpData.h"

#include <string.h>

#include <new>

#include <HttpProtocolWrapper.h>

// Process-wide send backlog limit of the transmitters. The plug-in never writes
// it; a host may, before it creates the server.
unsigned short g_iIocpDeepNum = HttpWrapper::IOCP_DEEP_NUM_UNSET;

namespace HttpWrapper {

int GlobalSendLimit()
{
    return g_iIocpDeepNum < IOCP_DEEP_NUM_UNSET ? g_iIocpDeepNum : IOCP_DEFAULT_MAX_COUNT;
}

bool TakeOverLimitLogTurn(std::atomic<ZRT_UINT32>& lastTick)
{
    ZRT_UINT32 now = ZRT_GetTimeTick();
    ZRT_UINT32 last = lastTick.load();
    // Of several senders over the limit at once, only the one that moves the
    // tick logs.
    return now - last >= 5001 && lastTick.compare_exchange_strong(last, now);
}

IOCP_DATA* NewIocpData(int type)
{
    IOCP_DATA* data = new (std::nothrow) IOCP_DATA;
    if (data == nullptr) {
        return nullptr;
    }
    // Callback, context, closed flag and buffer start empty; the 1 pending is
    // held while the transmitter is open.
    data->nPending.store(1);
    data->nType = type;
    return data;
}

void SetIocpCallback(IOCP_DATA* data, void* callback, void* context, bool onlyIfUnset)
{
    ZRT_Guard guard(data->callbackLock);
    if (onlyIfUnset && data->pfnCallBack != nullptr) {
        return;
    }
    // Owners pass their callbacks as void*, as the transmitter interface has it.
    data->pfnCallBack = reinterpret_cast<IOCP_CALLBACK>(callback);
    data->pContext = context;
}

bool HasIocpCallback(IOCP_DATA* data)
{
    ZRT_Guard guard(data->callbackLock);
    return data->pfnCallBack != nullptr;
}

void DispatchIocpCompletion(unsigned long errorCode, unsigned long bytes, void* record)
{
    IOCP_DATA* data = static_cast<IOCP_DATA*>(record);
    if (data == nullptr) {
        return;
    }
    data->lock.Lock();
    if (data->nClosed == 0) {
        IOCP_CALLBACK callback;
        void* context;
        {
            ZRT_Guard guard(data->callbackLock);
            callback = data->pfnCallBack;
            context = data->pContext;
        }
        if (callback != nullptr) {
            callback(errorCode, bytes, context);
        }
    }
    data->lock.Unlock();
    --data->nPending;
}

namespace {

void markClosed(IOCP_DATA* data)
{
    if (data != nullptr) {
        ZRT_Guard guard(data->lock);
        data->nClosed = 1;
    }
}

void freeRecord(IOCP_DATA*& data)
{
    if (data != nullptr) {
        delete[] data->pBuffer;
        delete data;
        data = nullptr;
    }
}

}  // namespace

void CloseIocpBinding(void* queue, int& socket, IOCP_DATA*& recvData, IOCP_DATA*& sendData)
{
    markClosed(recvData);
    markClosed(sendData);
    if (socket != ZRT_INVALID_SOCKET) {
        ZRT_AsyncIO_UnBindIOHandleEx(socket, queue);
        ZRT_CloseSocket(socket, 0);
        socket = ZRT_INVALID_SOCKET;
    }
    freeRecord(recvData);
    freeRecord(sendData);
}

char* NewIocpBuffer(IOCP_DATA* data, int size)
{
    if (size < 0) {
        return nullptr;
    }
    char* buffer = new (std::nothrow) char[static_cast<size_t>(size) + 1];
    if (buffer == nullptr) {
        return nullptr;
    }
    // A buffer from an earlier call is not freed here: owners ask once per
    // transmitter, and one who asks again keeps the earlier buffer as its own.
    data->pBuffer = buffer;
    memset(buffer, 0, static_cast<size_t>(size) + 1);
    return buffer;
}

}  // namespace HttpWrapper
