// The plug-in appends, last, "&clientIP=<X-Forwarded-For>" and
// "&username=<user>" to the URL of every request it hands the filter. That
// suffix is the client's text: the gateway reads its own parameters (device,
// times, names) only from the part before it, and takes from it one client
// address, and only a valid one.
#ifndef GATEWAY_CLIENT_ADDRESS_H
#define GATEWAY_CLIENT_ADDRESS_H

#include <string>

struct ForwardedClient {
    std::string address;    // a valid IPv4 or IPv6 address, or empty
    std::string untrusted;  // what was forwarded when it was not one (escaped, bounded), for the log
};

// The URL without the plug-in's suffix (from the last "&clientIP=" on), and the
// client as the suffix names it: the forwarded value percent-decoded, the first
// element of a proxy's comma-separated list, trimmed.
std::string splitForwardedClient(const std::string& url, ForwardedClient& client);

#endif  // GATEWAY_CLIENT_ADDRESS_H
