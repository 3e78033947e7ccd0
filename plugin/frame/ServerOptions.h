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

    // Reads the options from the server URL's parameters; a parameter counts as
    // on when its value is exactly "1".
    static CServerOptions fromParams(const ServerParams& params);
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SERVEROPTIONS_H
