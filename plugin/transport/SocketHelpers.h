// Plain blocking socket helpers of the transport layer: the raw audio channel's
// listener uses Listen, Accept and CloseSocket; Connect completes the layer.
// Connect and Listen report failure as -1 only; the module code is in the log.
#ifndef HTTPWRAPPER_TRANSPORT_SOCKETHELPERS_H
#define HTTPWRAPPER_TRANSPORT_SOCKETHELPERS_H

#include <zrt/zrt.h>

namespace HttpWrapper {

// Send and receive buffer size of every transport socket: 512 KiB each way, so
// an audio burst fits without stalling.
const int TRANSPORT_SOCKET_BUFFER_SIZE = 0x80000;

// A TCP socket connected to remoteIp:remotePort within timeoutMs, bound first to
// localIp:localPort when either is given; -1 on failure.
int Connect(const char* localIp, unsigned short localPort, const char* remoteIp, unsigned short remotePort,
            unsigned int timeoutMs);

// A listening TCP socket on ip:port (port 0: an ephemeral one); -1 on failure,
// with no socket left open.
int Listen(const char* ip, unsigned short port);

// ZRT_Accept unchanged: an accepted socket, or -1 on time-out, error or when the
// listening socket was closed.
int Accept(int listenSocket, ZRT_ADDR_T* peer, unsigned int timeoutMs);

// Switches lingering off and closes the socket if it is valid; the caller's
// variable becomes -1.
void CloseSocket(int& socket);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TRANSPORT_SOCKETHELPERS_H
