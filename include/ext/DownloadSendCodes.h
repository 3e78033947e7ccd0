/*
 * What a download's Send may mean beyond ProtocolWrapper.h, when the plug-in's
 * server URL asks for it.
 */
#ifndef HPW_EXT_DOWNLOAD_SEND_CODES_H
#define HPW_EXT_DOWNLOAD_SEND_CODES_H

enum {
    // "streamAbort=1": a data type that ends a download short (a read error, a client too slow):
    // the plug-in stops writing, closes the client's connection and the session (OnStop and
    // OnClose follow from its worker). Without the parameter the type is ignored, as any unknown one.
    HPW_STREAM_ABORT = 101,
    // "strictSendTimeout=1": Send's result when the client took nothing for the send time-out; the
    // session is closing. Without the parameter such a stall is retried for 60 s and fails with -1.
    HPW_SEND_TIMEOUT = 0x1930F49,
};

#endif  // HPW_EXT_DOWNLOAD_SEND_CODES_H
