// IPv4 sockets. Every socket is created close-on-exec; waits use poll(2) with a
// deadline on the monotonic clock and restart on EINTR.
#include "zrt/zrt.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr ZRT_UINT32 kWaitForever = 0xFFFFFFFFu;

// Waits for `events` on sock. 1 when ready, 0 on time-out, -1 on error.
int waitFor(int sock, short events, ZRT_UINT32 timeoutMs, short* revents)
{
    ZRT_UINT64 deadline = ZRT_GetTimeTick64() + timeoutMs;
    for (;;) {
        int wait = -1;
        if (timeoutMs != kWaitForever) {
            ZRT_UINT64 now = ZRT_GetTimeTick64();
            wait = now >= deadline ? 0 : static_cast<int>(deadline - now);
        }
        struct pollfd pfd = {sock, events, 0};
        int rc = poll(&pfd, 1, wait);
        if (rc > 0) {
            *revents = pfd.revents;
            return 1;
        }
        if (rc == 0) {
            errno = ETIMEDOUT;
            return 0;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

}  // namespace

extern "C" {

int ZRT_CreateSocket(int family, int type, int protocol)
{
    return socket(family, type | SOCK_CLOEXEC, protocol);
}

ZRT_INT32 ZRT_Bind(int sock, const ZRT_ADDR_T* addr)
{
    if (addr == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return bind(sock, reinterpret_cast<const struct sockaddr*>(addr), sizeof *addr) == 0 ? 0 : -1;
}

ZRT_INT32 ZRT_Listen(int sock, int backlog)
{
    return listen(sock, backlog) == 0 ? 0 : -1;
}

int ZRT_Accept(int listenSock, ZRT_ADDR_T* peer, ZRT_UINT32 timeoutMs)
{
    for (;;) {
        short revents = 0;
        int ready = waitFor(listenSock, POLLIN, timeoutMs, &revents);
        if (ready <= 0) {
            return -1;
        }
        if (revents & (POLLERR | POLLHUP | POLLNVAL)) {
            // ZRT_CloseSocket shuts a listening socket down to wake its acceptor.
            errno = (revents & POLLNVAL) ? EBADF : EINVAL;
            return -1;
        }
        ZRT_ADDR_T address;
        socklen_t length = sizeof address;
        int accepted = accept4(listenSock, reinterpret_cast<struct sockaddr*>(&address), &length, SOCK_CLOEXEC);
        if (accepted >= 0) {
            if (peer != nullptr) {
                *peer = address;
            }
            return accepted;
        }
        // A connection that was reset between poll and accept is not an error of
        // the listener: wait for the next one.
        if (errno == EINTR || errno == ECONNABORTED || errno == EAGAIN || errno == EWOULDBLOCK) {
            continue;
        }
        return -1;
    }
}

ZRT_INT32 ZRT_ConnectWithTimeOut(int sock, const ZRT_ADDR_T* addr, ZRT_UINT32 timeoutMs)
{
    if (addr == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int flags = fcntl(sock, F_GETFL, 0);
    if (flags < 0 || fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) {
        return -1;
    }
    int result = 0;
    if (connect(sock, reinterpret_cast<const struct sockaddr*>(addr), sizeof *addr) != 0) {
        if (errno != EINPROGRESS && errno != EINTR) {
            result = -1;
        } else {
            short revents = 0;
            int ready = waitFor(sock, POLLOUT, timeoutMs, &revents);
            if (ready <= 0) {
                result = -1;
            } else {
                int error = 0;
                socklen_t length = sizeof error;
                if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
                    result = -1;
                } else if (error != 0) {
                    errno = error;
                    result = -1;
                }
            }
        }
    }
    int savedErrno = errno;
    fcntl(sock, F_SETFL, flags);
    errno = savedErrno;
    return result;
}

ZRT_INT32 ZRT_SetBuffSize(int sock, int recvSize, int sendSize)
{
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &recvSize, sizeof recvSize) != 0) {
        return -1;
    }
    return setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &sendSize, sizeof sendSize) == 0 ? 0 : -1;
}

ZRT_INT32 ZRT_SetReuseAddr(int sock, int on)
{
    int value = on ? 1 : 0;
    return setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &value, sizeof value) == 0 ? 0 : -1;
}

ZRT_INT32 ZRT_LingerOn(int sock, int seconds)
{
    struct linger value;
    value.l_onoff = seconds > 0 ? 1 : 0;
    value.l_linger = seconds > 0 ? seconds : 0;
    return setsockopt(sock, SOL_SOCKET, SO_LINGER, &value, sizeof value) == 0 ? 0 : -1;
}

ZRT_INT32 ZRT_CloseSocket(int sock, int abortive)
{
    if (sock < 0) {
        errno = EBADF;
        return -1;
    }
    if (abortive) {
        struct linger value = {1, 0};
        setsockopt(sock, SOL_SOCKET, SO_LINGER, &value, sizeof value);
    } else {
        // Wakes a thread blocked in ZRT_Accept or poll on this socket: closing
        // alone does not.
        shutdown(sock, SHUT_RDWR);
    }
    // close(2) must not be retried on EINTR on Linux: the descriptor is gone.
    return close(sock) == 0 || errno == EINTR ? 0 : -1;
}

ZRT_INT32 ZRT_SetNonBlock(int sock, int on)
{
    int flags = fcntl(sock, F_GETFL, 0);
    if (flags < 0) {
        return -1;
    }
    flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    return fcntl(sock, F_SETFL, flags) == 0 ? 0 : -1;
}

ZRT_INT32 ZRT_MakeAddrByString(ZRT_ADDR_T* addr, const char* ip, ZRT_UINT16 port)
{
    if (addr == nullptr) {
        errno = EINVAL;
        return -1;
    }
    memset(addr, 0, sizeof *addr);
    addr->sin_family = AF_INET;
    addr->sin_port = htons(port);
    if (ip == nullptr || *ip == '\0') {
        addr->sin_addr.s_addr = htonl(INADDR_ANY);
        return 0;
    }
    if (inet_pton(AF_INET, ip, &addr->sin_addr) != 1) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

const char* ZRT_GetAddrString(const ZRT_ADDR_T* addr, char* buf, int size)
{
    if (buf == nullptr || size <= 0) {
        return "";
    }
    buf[0] = '\0';
    if (addr != nullptr) {
        inet_ntop(AF_INET, &addr->sin_addr, buf, (socklen_t)size);
    }
    return buf;
}

ZRT_UINT16 ZRT_GetAddrPort(const ZRT_ADDR_T* addr)
{
    return addr == nullptr ? 0 : ntohs(addr->sin_port);
}

ZRT_INT32 ZRT_GetSockName(int sock, ZRT_ADDR_T* addr)
{
    if (addr == nullptr) {
        errno = EINVAL;
        return -1;
    }
    socklen_t length = sizeof *addr;
    return getsockname(sock, reinterpret_cast<struct sockaddr*>(addr), &length) == 0 ? 0 : -1;
}

}  // extern "C"
