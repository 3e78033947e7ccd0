// Who asked for a download, as the filter verified it, carried to the server
// sink in the filter URL (the plug-in hands the filter URL it was given to
// OnOpen unchanged and reads nothing in it). The sink needs it for the access
// log: the user name the plug-in appends itself is cut short by one character.
#ifndef GATEWAY_REQUEST_ORIGIN_H
#define GATEWAY_REQUEST_ORIGIN_H

#include <string>

struct RequestOrigin {
    std::string client;  // a valid address or empty
    std::string user;    // as the Digest credentials named it; empty without credentials
};

// The URL followed by "#client=<address>&user=<percent-escaped name>".
std::string makeFilterUrl(const std::string& url, const RequestOrigin& origin);

// The origin the filter URL's last "#client=" part names; empty fields when none.
RequestOrigin originOfFilterUrl(const std::string& filterUrl);

#endif  // GATEWAY_REQUEST_ORIGIN_H
