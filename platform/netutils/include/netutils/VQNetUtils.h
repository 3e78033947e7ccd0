/*
 * Network utility library: an embedded HTTP/1.1 server.
 *
 * One listener accepts connections and reads one request per connection. Each
 * complete request is reported to the owner's callback with a connection
 * handle; the owner reads the request through NET_HTTPSERVER_GetParamV2,
 * answers with NET_HTTPSERVER_SetParam + NET_HTTPSERVER_Reply, and releases
 * the handle with NET_HTTPSERVER_Close.
 *
 * Limits: a request line and a header block of 8 KiB each, a body of 1 MiB.
 * A malformed request is answered "400 Bad Request", one over a limit
 * "413 Request Entity Too Large", a version other than HTTP/1.0 and HTTP/1.1
 * "505 HTTP Version Not Supported", and a request not whole within its
 * deadlines is dropped; none of them reaches the callback. Bytes that follow
 * the first request on a connection are read and ignored. The framing is
 * strict: whitespace before a header's colon, a folded header line, chunk data
 * not followed by CR LF and a request line without a version are malformed.
 *
 * A listener may also bound the connections it holds (see the listen record):
 * in total, per client address, and by descriptor number, so that a flood on
 * one port leaves descriptors for the owner's files and other ports. At a
 * bound, the oldest connection that has not delivered its request makes room;
 * when there is none, the new connection is answered "503 Service
 * Unavailable" and closed.
 *
 * A listener may run several I/O threads on one port (the kernel spreads new
 * connections over them); callbacks then come from any of them, each
 * connection's always from the same one.
 *
 * Every reply carries "Connection: close": the server closes the connection
 * by itself once the body has reached the length the head announced.
 *
 * All functions are thread-safe. They return -1 on failure and record the
 * reason for NET_UTILS_GetLastError() of the calling thread.
 */
#ifndef NETUTILS_VQNETUTILS_H
#define NETUTILS_VQNETUTILS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NET_API __attribute__((visibility("default")))

/* ---- library ---- */
enum {
    NET_SDK_CFG_CRYPTO_PATH = 0, /* value: path of libcrypto (text) */
    NET_SDK_CFG_SSL_PATH = 1,    /* value: path of libssl (text) */
};
NET_API int NET_UTILS_SetSDKInitCfg(int type, const void* value);
/* Reference counted. */
NET_API int NET_UTILS_Init(void);
NET_API int NET_UTILS_Fini(void);
/* Last failure of the calling thread (one of NET_ERR_*), 0 when none. */
NET_API int NET_UTILS_GetLastError(void);

enum {
    NET_ERR_NONE = 0,
    NET_ERR_PARAM = 1,     /* bad argument */
    NET_ERR_NOT_INIT = 2,  /* NET_UTILS_Init was not called */
    NET_ERR_SOCKET = 3,    /* socket, bind or listen failed */
    NET_ERR_HANDLE = 4,    /* unknown handle */
    NET_ERR_BUFFER = 5,    /* output buffer too small */
    NET_ERR_NOT_FOUND = 6, /* no such header */
    NET_ERR_CLOSED = 7,    /* the connection has ended */
    NET_ERR_NO_MEMORY = 8,
    NET_ERR_THREAD = 9, /* a thread could not be started */
    NET_ERR_BUSY = 10,  /* a file is being sent on the connection */
};

/* ---- records ---- */

/* Callback of a listener. handle: the connection. event: NET_HTTPSERVER_EVENT.
 * Runs on the listener's own I/O thread, never inside an API call and never
 * with a lock of the library held: it may call any function of the library
 * except NET_HTTPSERVER_DestroyListen of its own listener and the last
 * NET_UTILS_Fini (both refused there, as they wait for this thread). While it
 * runs, the listener serves no other connection: hand work to other threads. */
typedef void (*NET_HTTPSERVER_CB)(int handle, void* event, void* user);

#pragma pack(push, 1)
/* Listen parameters: 176 bytes; unused bytes must be zero. */
typedef struct NET_HTTPSERVER_LISTEN_PARAM {
    uint32_t dwSize;              /*   0: reserved, 0 */
    char szAddress[128];          /*   4: listen address, dotted quad */
    uint16_t wPort;               /* 132: port; 0 takes an ephemeral one */
    uint8_t byIoThreads;          /* 134: I/O threads sharing the port, each with its own connections
                                     (0: 1); the bounds below are shared out among them */
    uint8_t byRes1;               /* 135 */
    uint32_t dwHeadTimeout;       /* 136: ms from the connection to its whole request head, after which
                                     the body has the receive time-out (0: the receive time-out bounds
                                     the whole request) */
    uint32_t dwMaxConnections;    /* 140: connections held at once (0: no bound) */
    uint32_t dwMaxPerAddress;     /* 144: connections held at once per client address (0: no bound) */
    uint32_t dwRecvTimeout;       /* 148: ms to receive a whole request, or its body after its head
                                     (0: 30000) */
    uint32_t dwSendTimeout;       /* 152: default reply send time-out in ms (0: 5000) */
    uint32_t dwReserveFds;        /* 156: descriptors kept free: no connection is held whose descriptor
                                     number is at or above the process's limit minus this (0: none) */
    NET_HTTPSERVER_CB fnCallback; /* 160 */
    void* pUser;                  /* 168 */
} NET_HTTPSERVER_LISTEN_PARAM;

/* Callback event. */
typedef struct NET_HTTPSERVER_EVENT {
    uint32_t dwRes;     /*  0 */
    uint32_t dwType;    /*  4: NET_HTTPSERVER_EVENT_* */
    uint32_t dwDataLen; /*  8: length of pData */
    uint8_t byRes[4];   /* 12 */
    const char* pData;  /* 16: request body (valid during the call only) */
} NET_HTTPSERVER_EVENT;

/* Request parameter block: 5054 bytes, zeroed before each fill. */
typedef struct NET_HTTPSERVER_REQUEST_PARAM {
    char szUrl[2048];     /*    0: path and query */
    int32_t iMethod;      /* 2048: NET_HTTP_METHOD_* */
    char szUserName[513]; /* 2052: Digest credential fields ... */
    char szRealm[192];    /* 2565 */
    char szNonce[256];    /* 2757 */
    char szUri[2008];     /* 3013 */
    char szResponse[33];  /* 5021 */
} NET_HTTPSERVER_REQUEST_PARAM;
#pragma pack(pop)

/* How a file sent by NET_HTTPSERVER_SendFile ended. */
enum {
    NET_FILE_COMPLETE = 0,     /* every byte was written */
    NET_FILE_CLIENT_GONE = 1,  /* the client closed or reset the connection, or a send failed */
    NET_FILE_SEND_TIMEOUT = 2, /* the socket took nothing for the stall time-out */
    NET_FILE_TOO_SLOW = 3,     /* a window closed with fewer bytes taken than the minimum rate asks */
    NET_FILE_READ_ERROR = 4,   /* the file could not be read to the length given (it shrank, or failed) */
    NET_FILE_ENDED = 5,        /* the owner closed or aborted the handle, or the listener was destroyed */
};

/* Called once per file taken, from the listener's I/O thread (the rules of NET_HTTPSERVER_CB apply),
 * before the end of the connection is reported. bytes: bytes of the file written (framing excluded). */
typedef void (*NET_HTTPSERVER_FILE_CB)(int handle, int outcome, uint64_t bytes, void* user);

/* Flags of the file record. */
enum {
    NET_FILE_FLAG_SENDFILE = 1, /* zero copy with sendfile(2); otherwise read into the loop's buffer */
};

/* A file for NET_HTTPSERVER_SendFile: 64 bytes, natural alignment; unused bytes must be zero. */
typedef struct NET_HTTPSERVER_FILE_PARAM {
    int32_t iFd;                   /*  0: readable with pread; the library owns it once the call succeeded */
    uint32_t dwChunkSize;          /*  4: 0: the bytes as they are; n: chunked framing, one chunk per n bytes
                                          of the file, then the last chunk "0" CR LF CR LF */
    int64_t llOffset;              /*  8: first byte of the file */
    int64_t llLength;              /* 16: bytes of the file to send */
    uint32_t dwStallTimeoutMs;     /* 24: the socket taking nothing this long ends the file (0: the listener's
                                          send time-out) */
    uint32_t dwMinRate;            /* 28: bytes per second the client must take (0: no minimum) ... */
    uint32_t dwMinRateSeconds;     /* 32: ... in each window of this many seconds (0: 30) */
    uint32_t dwFlags;              /* 36: NET_FILE_FLAG_* */
    NET_HTTPSERVER_FILE_CB fnDone; /* 40 */
    void* pUser;                   /* 48 */
    uint8_t byRes[8];              /* 56 */
} NET_HTTPSERVER_FILE_PARAM;

/* The records are shared with code built elsewhere: their layout must not move. */
#if defined(__cplusplus)
#define NET_LAYOUT_CHECK(condition, text) static_assert(condition, text)
#else
#define NET_LAYOUT_CHECK(condition, text) _Static_assert(condition, text)
#endif
NET_LAYOUT_CHECK(sizeof(NET_HTTPSERVER_LISTEN_PARAM) == 176, "listen parameters: 176 bytes");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, szAddress) == 4, "listen parameters: address");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, wPort) == 132, "listen parameters: port");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, byIoThreads) == 134, "listen parameters: I/O threads");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, dwHeadTimeout) == 136, "listen parameters: head time-out");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, dwMaxConnections) == 140, "listen parameters: connections");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, dwMaxPerAddress) == 144, "listen parameters: per address");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, dwRecvTimeout) == 148, "listen parameters: receive time-out");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, dwReserveFds) == 156, "listen parameters: reserve");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, dwSendTimeout) == 152, "listen parameters: send time-out");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, fnCallback) == 160, "listen parameters: callback");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_LISTEN_PARAM, pUser) == 168, "listen parameters: user pointer");
NET_LAYOUT_CHECK(sizeof(NET_HTTPSERVER_EVENT) == 24, "event: 24 bytes");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_EVENT, dwType) == 4, "event: type");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_EVENT, dwDataLen) == 8, "event: data length");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_EVENT, pData) == 16, "event: data");
NET_LAYOUT_CHECK(sizeof(NET_HTTPSERVER_REQUEST_PARAM) == 5054, "request parameters: 5054 bytes");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_REQUEST_PARAM, iMethod) == 2048, "request parameters: method");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_REQUEST_PARAM, szUserName) == 2052, "request parameters: user name");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_REQUEST_PARAM, szRealm) == 2565, "request parameters: realm");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_REQUEST_PARAM, szNonce) == 2757, "request parameters: nonce");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_REQUEST_PARAM, szUri) == 3013, "request parameters: uri");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_REQUEST_PARAM, szResponse) == 5021, "request parameters: response");
NET_LAYOUT_CHECK(sizeof(NET_HTTPSERVER_FILE_PARAM) == 64, "file: 64 bytes");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_FILE_PARAM, llOffset) == 8, "file: offset");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_FILE_PARAM, llLength) == 16, "file: length");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_FILE_PARAM, dwStallTimeoutMs) == 24, "file: stall time-out");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_FILE_PARAM, dwFlags) == 36, "file: flags");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_FILE_PARAM, fnDone) == 40, "file: callback");
NET_LAYOUT_CHECK(offsetof(NET_HTTPSERVER_FILE_PARAM, pUser) == 48, "file: user pointer");
#undef NET_LAYOUT_CHECK

enum {
    NET_HTTPSERVER_EVENT_REQUEST = 0, /* a complete request; data = body */
    /* Kinds 1 and 2 carry no request an owner serves: owners refuse them and
     * only close the handle. This library reports neither. */
    NET_HTTPSERVER_EVENT_REFUSED_MIN = 1,
    NET_HTTPSERVER_EVENT_REFUSED_MAX = 2,
    /* The connection ended (reply complete, client closed or vanished, send
     * failed, listener destroyed) after its request was reported and before the
     * owner closed the handle; reported once. Owners test for >= 0xFF00. A
     * client that only shuts down its sending side counts as gone. */
    NET_HTTPSERVER_EVENT_CLOSED = 0xFF00,
};

enum {
    NET_HTTP_METHOD_GET = 0,
    NET_HTTP_METHOD_PUT = 1,
    NET_HTTP_METHOD_POST = 2,
    NET_HTTP_METHOD_DELETE = 3,
    NET_HTTP_METHOD_OTHER = 4,
};

/* Parameter kinds of NET_HTTPSERVER_SetParam. */
enum {
    NET_HTTPSERVER_PARAM_STATUS = 1,       /* int32 status code (default 200) */
    NET_HTTPSERVER_PARAM_BODY = 4,         /* body bytes, referenced (not copied) until Reply returns;
                                              up to 8 pieces per reply, written in order */
    NET_HTTPSERVER_PARAM_SEND_TIMEOUT = 5, /* int32 ms for this reply; 0 never waits */
    NET_HTTPSERVER_PARAM_STREAM = 6,       /* no value: a streamed body follows the head. Staged
                                              with the head, it leaves out the computed
                                              Content-Length; staged after it, it changes nothing */
    NET_HTTPSERVER_PARAM_HEADER = 255,     /* header: name and value (copied); CR, LF and NUL
                                              are refused. A staged "Connection" is dropped */
};

/* Kinds of NET_HTTPSERVER_GetParamV2 (second and third arguments). */
enum {
    NET_HTTPSERVER_GET_REQUEST = 0,  /* type */
    NET_HTTPSERVER_SUB_PARAMS = 0,   /* sub-type: the request parameter block */
    NET_HTTPSERVER_SUB_HEADER = 255, /* sub-type: one header by name */
};

/* ---- server ---- */
/* Requires NET_UTILS_Init. Returns the listener's handle (a positive number) or -1. */
NET_API long NET_HTTPSERVER_CreateListen(const NET_HTTPSERVER_LISTEN_PARAM* param);
/* Stops accepting, ends every connection of the listener (a Reply in progress
 * returns -1), reports the end of each reported connection whose handle is
 * still open, and returns once the listener's thread has finished. Handles
 * stay known until they are closed. */
NET_API int NET_HTTPSERVER_DestroyListen(long listenHandle);
/* Port the listener is bound to (useful with port 0), or -1. */
NET_API int NET_HTTPSERVER_GetListenPort(long listenHandle);
/* type 0, subType 0: fill the request parameter block (size >= 5054). The
 * Digest fields come from an "Authorization: Digest" header, each cut to its
 * field; they stay empty without one.
 * type 0, subType 255: copy the value of the header `name` (nameLength bytes,
 * compared without regard to case) with its terminating zero; fails when
 * absent or when it does not fit.
 * Returns 0. The request stays readable after the connection ended, until the
 * handle is closed. */
NET_API int NET_HTTPSERVER_GetParamV2(int handle, int type, int subType, const char* name, int nameLength, void* buffer,
                                      int size);
/* Stages one item of the next reply (see NET_HTTPSERVER_PARAM_*). */
NET_API int NET_HTTPSERVER_SetParam(int handle, int kind, const char* name, int nameLength, const void* value,
                                    int valueLength);
/* Writes what was staged, and consumes it. The first reply writes the head:
 * the status line, the staged headers in staging order, "Connection: close"
 * and, unless a Content-Length or Transfer-Encoding header or kind 6 was
 * staged, a Content-Length of the staged body. The head is always sent whole
 * (or the connection fails). The body is written while the socket takes it,
 * waiting for it to drain, until it is all written or the socket accepted
 * nothing for the send time-out; bytes past the announced length are not
 * written. Returns the number of body bytes written (0 when none could be
 * written in that time), or -1 on a broken, ended or unknown connection. */
NET_API int NET_HTTPSERVER_Reply(int handle, int flags);
/* Releases the handle and ends its connection if still open. flush != 0 lets
 * what was written drain to the client; 0 resets the connection and drops it.
 * A Reply in progress on the handle returns -1. Closing an unknown handle or
 * closing twice is harmless (-1, NET_ERR_HANDLE). */
NET_API int NET_HTTPSERVER_Close(int handle, int flush);
/* Hands the rest of a streamed reply's body to the listener's I/O thread: the
 * file's bytes from llOffset, written whenever the socket has room, so that no
 * thread of the owner waits for a slow client. The head must have been sent;
 * a Reply on the handle fails (NET_ERR_BUSY) from then on. The file ends the
 * reply: once it is written (or can no longer be) the connection ends, after
 * fnDone has been called exactly once. Returns 0 when taken (iFd is the
 * library's from then on), -1 when not (iFd stays the caller's and fnDone is
 * never called). */
NET_API int NET_HTTPSERVER_SendFile(int handle, const NET_HTTPSERVER_FILE_PARAM* file);
/* Resets the connection at once but keeps the handle known: a file being sent
 * ends (NET_FILE_ENDED) and the end is reported as any other. For an owner
 * that must be sure a file's callback came before it lets go of what the
 * callback touches. */
NET_API int NET_HTTPSERVER_Abort(int handle);

#ifdef __cplusplus
}
#endif

#endif /* NETUTILS_VQNETUTILS_H */
