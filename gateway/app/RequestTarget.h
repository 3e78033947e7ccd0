// The request target the plug-in forwards (its Request-Target head), held to
// the request the plug-in made of it. The Digest response covers the target,
// not the body or what the plug-in derived: a target for one device or talk
// must not carry a request for another.
#ifndef GATEWAY_REQUEST_TARGET_H
#define GATEWAY_REQUEST_TARGET_H

#include <string>

// Whether target fits: the download path for a download, and for a device
// named in both, the same device; the channel's own path for a talk. ownUrl is
// the client's part of the plug-in's URL (PluginUrl.h).
bool requestTargetMatches(const std::string& target, const std::string& ownUrl, std::string& reason);

#endif  // GATEWAY_REQUEST_TARGET_H
