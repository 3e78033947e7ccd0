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

    // Reads the options from the server URL's parameters; a parameter counts as
    // on when its value is exactly "1".
    static CServerOptions fromParams(const ServerParams& params);
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_FRAME_SERVEROPTIONS_H
