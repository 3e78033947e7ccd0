/*
 * An opt-in second way for a gateway to deliver a download's file: instead of
 * the blocks of IServer::Send, one request through IServer::SendMSG hands the
 * plug-in the file itself, and the plug-in's HTTP server writes it from its
 * event loop whenever the client's socket has room. No gateway thread waits
 * for a slow client and no block is held per download.
 *
 * The reply's head and the 40-byte stream head still go through Send
 * (STREAM_INFO, STREAM_HEAD) first; the request then stands for every
 * STREAM_DATA block and the STREAM_END that would have followed. A range maps
 * to the offset and length of the file's bytes to send. A chunked reply keeps
 * its framing: one chunk per blockSize bytes of the file, as Send of blocks of
 * that size makes it.
 *
 * SendMSG answers 0 when the plug-in took the request: it owns a dup of `fd`
 * (the gateway keeps and closes its own), sends no Send-driven data for the
 * session any more, and calls onDone exactly once, from a thread of its own,
 * before OnStop and OnClose of the session, whichever way the download ends
 * (see DeliveryOutcome). Any other answer is a module error code: nothing was
 * taken, onDone is never called, and the gateway sends the file with Send as
 * before. A gateway that never sends this message sees the plug-in as always.
 */
#ifndef PROTOCOL_EXT_DELIVERY_REQUEST_H
#define PROTOCOL_EXT_DELIVERY_REQUEST_H

#include <stddef.h>
#include <stdint.h>

namespace PROTOCOL_WRAPPER {

// The message type of SendMSG; no other message type of the interface has this value.
enum { MSG_DELIVER_FILE = 0x44460001 };

// How a delivered download ended.
enum DeliveryOutcome {
    DELIVERY_COMPLETE = 0,      // every byte was written
    DELIVERY_CLIENT_GONE = 1,   // the client closed or reset the connection
    DELIVERY_SEND_TIMEOUT = 2,  // the client took nothing for the send time-out
    DELIVERY_TOO_SLOW = 3,      // the client took less than minRate over a window of minRateSeconds
    DELIVERY_READ_ERROR = 4,    // the file could not be read to offset + length
    DELIVERY_STOPPED = 5,       // the session ended first (the server stopping, the session closed)
};

// bytesSent: bytes of the file written to the client (framing excluded).
typedef void (*DeliveryDoneCallback)(void* context, int outcome, uint64_t bytesSent);

struct DeliveryRequest {
    uint32_t size;                //  0: sizeof(DeliveryRequest)
    int32_t fd;                   //  4: the file, readable with pread; the plug-in takes a dup
    uint64_t offset;              //  8: first byte of the file to send
    uint64_t length;              // 16: bytes of the file to send
    uint32_t blockSize;           // 24: a chunked reply's chunk size (the gateway's block size)
    uint32_t minRate;             // 28: bytes per second the client must take, 0: no minimum
    uint32_t minRateSeconds;      // 32: the window minRate is measured over (0: 30)
    uint32_t reserved;            // 36: 0
    DeliveryDoneCallback onDone;  // 40
    void* context;                // 48: onDone's first argument
};

// Shared with gateways built elsewhere: the layout must not move.
static_assert(sizeof(DeliveryRequest) == 56, "delivery request: 56 bytes");
static_assert(offsetof(DeliveryRequest, fd) == 4, "delivery request: fd");
static_assert(offsetof(DeliveryRequest, offset) == 8, "delivery request: offset");
static_assert(offsetof(DeliveryRequest, length) == 16, "delivery request: length");
static_assert(offsetof(DeliveryRequest, blockSize) == 24, "delivery request: block size");
static_assert(offsetof(DeliveryRequest, minRate) == 28, "delivery request: minimum rate");
static_assert(offsetof(DeliveryRequest, minRateSeconds) == 32, "delivery request: rate window");
static_assert(offsetof(DeliveryRequest, onDone) == 40, "delivery request: callback");
static_assert(offsetof(DeliveryRequest, context) == 48, "delivery request: context");

}  // namespace PROTOCOL_WRAPPER

#endif  // PROTOCOL_EXT_DELIVERY_REQUEST_H
