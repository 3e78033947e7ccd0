// Behaviour stricter than a gateway written to the plug-in's interface expects,
// each switched on by a parameter of the server URL. Without the parameter the
// plug-in behaves exactly as such a gateway relies on; the reference gateway
// turns them on. Read once when the server starts.
#ifndef HTTPWRAPPER_FRAME_SERVEROPTIONS_H
#define HTTPWRAPPER_FRAME_SERVEROPTIONS_H

#include <map>
#include <string>

namespace HttpWrapper {

typedef std::map<std::string, std::string> ServerParams;

struct CServerOptions {
    // "checkTalkBacklog=1": device audio for a talk's listening link is posted
    // with the transmitter's backlog limit, so a client that stops reading its
    // GET link loses audio instead of growing the queue without end.
    bool checkTalkBacklog = false;

    // "checkRequestText=1": the client's text that goes into the RTSP request
    // (the playback URI, the Authorization value, the request target, a talk's
    // Host) is checked once, where the request is built: a control byte (CR,
    // LF, NUL and the rest), or a space where the field cannot hold one,
    // refuses the request with badParameters instead of reaching the gateway
    // as heads or a request line of the client's making.
    bool checkRequestText = false;

    // "sendRequestTarget=1": the RTSP request carries one more head after the
    // standard ones, "Request-Target", with the HTTP request's target as the
    // client sent it (path and query). The gateway holds a Digest "uri" to it
    // and tells a talk's open, close and audio links apart by it.
    bool sendRequestTarget = false;

    // "requireTalkSessionId=1": an audio link of the raw channel must name its
    // talk's sessionId; without one it is refused like a wrong one, instead of
    // reaching whichever talk its channel has.
    bool requireTalkSessionId = false;

    // "talkGatewayRefusal=1": a talk request (open, close or audio link) that
    // the gateway refuses is answered with the gateway's REST error, as a
    // download is (serviceUnavailable while the gateway stops, for example),
    // instead of internalError; a 401 still answers badAuthorization.
    bool talkGatewayRefusal = false;

    // "headTimeout=<ms>": a request head must be whole this long after the
    // connection, on the HTTP port (its body then has the receive time-out)
    // and on the audio port (where the connection must have become a talk's
    // link by then). 0: the interface's time-outs only.
    int headTimeoutMs = 0;
    // "maxConnections=<n>", "maxConnectionsPerAddress=<n>": connections each
    // port holds at once, in total and per client address; at a bound the
    // oldest connection that has not sent its request makes room, or the new
    // one is refused. "reserveFds=<n>": no connection is held on a descriptor
    // numbered within n of the process's limit, which stays for the gateway's
    // files and the other port. 0: no bound.
    int maxConnections = 0;
    int maxConnectionsPerAddress = 0;
    int reserveFds = 0;

    // "strictSendTimeout=1": a download whose client takes nothing for the
    // send time-out ends at once, and Send tells the gateway so with
    // HPW_ERR_SEND_TIMEOUT, instead of the reply being retried for 60 s.
    bool strictSendTimeout = false;
    // "streamAbort=1": the gateway may end a download short with data type
    // HPW_STREAM_ABORT (ext/DownloadSendCodes.h); the client's connection is
    // reset at once, instead of waiting for the session to age out.
    bool streamAbort = false;
    // "sendfile=1": files the gateway hands over (ext/DeliveryRequest.h) go out with sendfile(2)
    // instead of being read into the HTTP server's buffer; both write the same bytes.
    bool deliverySendfile = false;
    // "ioThreads=<n>": I/O threads of the HTTP port (1 to 16; 0 or absent: 1). Sends of handed-over files
    // run on them, so one per core lets every core send.
    int ioThreads = 0;

    // Whether either port bounds its connections (the audio port then admits
    // them through its gate, see CRawConnectionGate).
    bool boundsConnections() const
    {
        return headTimeoutMs != 0 || maxConnections != 0 || maxConnectionsPerAddress != 0 || reserveFds != 0;
    }

    // Reads the options from the server URL's parameters; a switch counts as on
    // when its value is exactly "1", a bound is a decimal number (anything else: 0).
    static CServerOptions fromParams(const ServerParams& params);
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SERVEROPTIONS_H
