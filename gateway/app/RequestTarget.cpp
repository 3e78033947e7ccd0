#include "app/RequestTarget.h"

#include "download/PlaybackUri.h"
#include "talk/TalkDevices.h"

bool requestTargetMatches(const std::string& target, const std::string& ownUrl, std::string& reason)
{
    const std::string path = target.substr(0, target.find('?'));
    const int channel = talkChannelOfUrl(ownUrl);
    if (channel != 0) {
        const std::string talkPath = "/QUMEX/System/TwoWayAudio/channels/" + std::to_string(channel) + "/";
        if (path.compare(0, talkPath.size(), talkPath) != 0) {
            reason = "request target \"" + target + "\" is not channel " + std::to_string(channel) + "'s";
            return false;
        }
        return true;
    }
    if (path != "/QUMEX/ContentMgmt/download") {
        reason = "request target \"" + target + "\" is not the download path";
        return false;
    }
    // A device named by both must be the same one: the body (which recording) is
    // not covered by the response.
    const size_t key = target.find("devIndex=");
    PlaybackUri uri;
    std::string error;
    if (key != std::string::npos && parsePlaybackUri(ownUrl, uri, error) && !uri.deviceIndex.empty()) {
        const size_t start = key + 9;
        const std::string named = target.substr(start, target.find('&', start) - start);
        if (named != uri.deviceIndex) {
            reason = "request target names device \"" + named + "\", the playback URI \"" + uri.deviceIndex + "\"";
            return false;
        }
    }
    return true;
}
