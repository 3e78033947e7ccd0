// What a download names, read from the client's own part of the URL the
// plug-in hands to the filter chain (PluginUrl.h cuts off the rest). The
// plug-in builds that part from the client's playback URI: "playback" became
// "download", and the XML form turned "camera/<id>/" into "device/<id>/" or
// appended "indexType=rtspPort&rtspPort=<port>".
#ifndef GATEWAY_PLAYBACK_URI_H
#define GATEWAY_PLAYBACK_URI_H

#include <map>
#include <string>

struct PlaybackUri {
    std::string host;                           // address in the authority, without the port
    std::string deviceIndex;                    // "devIndex" parameter, else the "device/<id>/" path segment
    int rtspPort = 0;                           // "rtspPort" parameter when "indexType" is "rtspPort", else 0
    std::map<std::string, std::string> params;  // decoded query of the client's URI

    std::string param(const std::string& name) const;
    bool hasParam(const std::string& name) const { return params.count(name) != 0; }
};

// False with a reason when the URL has no "rtsp://" authority, or a parameter
// that cannot be decoded or that appears twice: which of two values a reader
// takes is how one reader is played against another (an XML URI that names its
// own rtspPort meets the one the plug-in appends, and is refused too).
bool parsePlaybackUri(const std::string& url, PlaybackUri& uri, std::string& error);

#endif  // GATEWAY_PLAYBACK_URI_H
