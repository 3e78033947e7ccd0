// What a download names, read from the URL of the RTSP request that the
// plug-in hands to the filter chain. The plug-in builds that URL from the
// client's playback URI: "playback" became "download", the XML form turned
// "camera/<id>/" into "device/<id>/" or appended
// "indexType=rtspPort&rtspPort=<port>", and "&clientIP=<X-Forwarded-For>" and
// "&username=..." were appended last. Only the part before that suffix is read
// for parameters: the forwarded text is the client's and chooses nothing.
#ifndef GATEWAY_PLAYBACK_URI_H
#define GATEWAY_PLAYBACK_URI_H

#include <map>
#include <string>

#include "ClientAddress.h"

struct PlaybackUri {
    std::string host;         // address in the authority, without the port
    std::string deviceIndex;  // "devIndex" parameter, else the "device/<id>/" path segment
    int rtspPort = 0;         // "rtspPort" parameter when "indexType" is "rtspPort", else 0
    std::map<std::string, std::string>
        params;              // decoded query of the client's URI; a repeated name keeps its last value
    ForwardedClient client;  // from the plug-in's suffix, never from params

    std::string param(const std::string& name) const;
    bool hasParam(const std::string& name) const { return params.count(name) != 0; }
};

// False with a reason when the URL has no "rtsp://" authority or a parameter
// that cannot be decoded.
bool parsePlaybackUri(const std::string& url, PlaybackUri& uri, std::string& error);

#endif  // GATEWAY_PLAYBACK_URI_H
