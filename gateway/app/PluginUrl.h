// The one reader of the URL the plug-in hands the filter with every request
// that carries credentials. The plug-in builds it as
//   <the client's own part> "&clientIP=" <X-Forwarded-For, percent-escaped>
//                           "&username=" <the Digest user name without its last character>
// (the user part only when the Authorization value names a user where the
// plug-in looks, the first `username="`). Both suffixes are the client's text,
// and a client can write anything into its own part, "&clientIP=" and
// "&username=" included. So the suffix is cut off exactly, knowing what the
// plug-in appends for the user whose credentials are checked: a URL that
// does not end that way is refused, and nothing after the own part can
// choose a device, a recording, a client or a user.
#ifndef GATEWAY_PLUGIN_URL_H
#define GATEWAY_PLUGIN_URL_H

#include <string>

struct ForwardedClient {
    std::string address;    // a valid IPv4 or IPv6 address, or empty
    std::string untrusted;  // what was forwarded when it was not one (escaped, bounded), for the log
};

struct PluginUrl {
    std::string own;  // the client's part: the only one read for devices, times, names and channels
    ForwardedClient client;
};

// What the plug-in appends for a user name (docs/compatibility.md, Q2): "&username=" and the name without
// its last character; nothing for an empty name or one of 65 characters or more.
std::string pluginUserSuffix(const std::string& user);

// Splits url for the Digest user `user` (as the credentials name it). False
// with a reason when the URL does not end with the plug-in's suffix for that
// user, or the client part of the suffix is not one the plug-in writes.
bool splitPluginUrl(const std::string& url, const std::string& user, PluginUrl& split, std::string& error);

// The client a forwarded value names: the value percent-decoded, the first
// element of a proxy's comma-separated list, trimmed, and only when it is an
// address.
ForwardedClient readForwardedClient(const std::string& escaped);

#endif  // GATEWAY_PLUGIN_URL_H
