#include "transport/SocketHelpers.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "frame/ErrorCodes.h"
#include "frame/Log.h"

namespace HttpWrapper {

namespace {

const int kListenBacklog = 4096;

const char* textOf(const char* ip)
{
    return ip != nullptr ? ip : "";
}

}  // namespace

int Connect(const char* localIp, unsigned short localPort, const char* remoteIp, unsigned short remotePort,
            unsigned int timeoutMs)
{
    int sock = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (sock == ZRT_INVALID_SOCKET) {
        HPW_LOGE(HPW_ERR_SOCKET_CREATE, "HttpProtocolWrapper Create Socket fail, errCode<%d>",
                 ZRT_GetSystemLastError());
        return -1;
    }
    ZRT_ADDR_T address;
    if (localIp != nullptr || localPort != 0) {
        if (ZRT_MakeAddrByString(&address, localIp, localPort) != 0) {
            // Prints "0.0.0.0" whatever the local address was: intended, the
            // line has always read so (Q20).
            HPW_LOGE(HPW_ERR_ADDRESS, "HttpProtocolWrapper ZRT_MakeAddrByString fail, Addr<%s:%d>, errCode<%d>",
                     "0.0.0.0", localPort, ZRT_GetSystemLastError());
            ZRT_CloseSocket(sock, 0);
            return -1;
        }
        if (ZRT_Bind(sock, &address) != 0) {
            HPW_LOGE(HPW_ERR_BIND, "HttpProtocolWrapper Bind fail, errCode<%d>", ZRT_GetSystemLastError());
            ZRT_CloseSocket(sock, 0);
            return -1;
        }
    }
    if (ZRT_MakeAddrByString(&address, remoteIp, remotePort) != 0) {
        HPW_LOGE(HPW_ERR_ADDRESS, "HttpProtocolWrapper ZRT_MakeAddrByString fail, Addr<%s:%d>, errCode<%d>",
                 textOf(remoteIp), remotePort, ZRT_GetSystemLastError());
        CloseSocket(sock);
        return -1;
    }
    if (ZRT_ConnectWithTimeOut(sock, &address, timeoutMs) != 0) {
        HPW_LOGE(HPW_ERR_CONNECT, "HttpProtocolWrapper ZRT_ConnectWithTimeOut, Addr<%s:%d>, errCode<%d>",
                 textOf(remoteIp), remotePort, ZRT_GetSystemLastError());
        CloseSocket(sock);
        return -1;
    }
    if (ZRT_SetBuffSize(sock, TRANSPORT_SOCKET_BUFFER_SIZE, TRANSPORT_SOCKET_BUFFER_SIZE) != 0) {
        HPW_LOGE(HPW_ERR_SOCKET_OPTION, "HttpProtocolWrapper ZRT_SetBuffSize fail, errCode<%d>",
                 ZRT_GetSystemLastError());
        CloseSocket(sock);
        return -1;
    }
    if (ZRT_SetReuseAddr(sock, 1) != 0) {
        HPW_LOGE(HPW_ERR_SOCKET_OPTION, "HttpProtocolWrapper ZRT_SetReuseAddr fail, errCode<%d>",
                 ZRT_GetSystemLastError());
        CloseSocket(sock);
        return -1;
    }
    return sock;
}

int Listen(const char* ip, unsigned short port)
{
    int sock = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (sock == ZRT_INVALID_SOCKET) {
        HPW_LOGE(HPW_ERR_SOCKET_CREATE, "HttpProtocolWrapper Listen fail, ZRT_CreateSocket fail, errCode<%d>",
                 ZRT_GetSystemLastError());
        return -1;
    }
    ZRT_ADDR_T address;
    if (ZRT_SetBuffSize(sock, TRANSPORT_SOCKET_BUFFER_SIZE, TRANSPORT_SOCKET_BUFFER_SIZE) != 0) {
        HPW_LOGE(HPW_ERR_SOCKET_OPTION, "HttpProtocolWrapper Listen fail, ZRT_SetBuffSize fail, errCode<%d>",
                 ZRT_GetSystemLastError());
    } else if (ZRT_SetReuseAddr(sock, 1) != 0) {
        HPW_LOGE(HPW_ERR_SOCKET_OPTION, "HttpProtocolWrapper Listen fail, ZRT_SetReuseAddr fail, errCode<%d>",
                 ZRT_GetSystemLastError());
    } else if (ZRT_MakeAddrByString(&address, ip, port) != 0) {
        // Prints "0.0.0.0" whatever ip was: intended, the line has always read so (Q20).
        HPW_LOGE(HPW_ERR_ADDRESS,
                 "HttpProtocolWrapper Listen fail, ZRT_MakeAddrByString fail, Addr<%s:%d>, errCode<%d>", "0.0.0.0",
                 port, ZRT_GetSystemLastError());
    } else if (ZRT_Bind(sock, &address) != 0) {
        HPW_LOGE(HPW_ERR_BIND, "HttpProtocolWrapper Listen fail, ZRT_Bind fail, errCode<%d>", ZRT_GetSystemLastError());
    } else if (ZRT_Listen(sock, kListenBacklog) != 0) {
        HPW_LOGE(HPW_ERR_LISTEN, "HttpProtocolWrapper Listen fail, ZRT_Listen fail, errCode<%d>",
                 ZRT_GetSystemLastError());
    } else {
        return sock;
    }
    // A listener that failed is closed as it stands, lingering untouched.
    ZRT_CloseSocket(sock, 0);
    return -1;
}

int Accept(int listenSocket, ZRT_ADDR_T* peer, unsigned int timeoutMs)
{
    return ZRT_Accept(listenSocket, peer, timeoutMs);
}

void CloseSocket(int& socket)
{
    // Lingering goes off first, for an invalid socket too (that call just fails).
    ZRT_LingerOn(socket, 0);
    if (socket != ZRT_INVALID_SOCKET) {
        ZRT_CloseSocket(socket, 0);
        socket = ZRT_INVALID_SOCKET;
    }
}

}  // namespace HttpWrapper
