#include "session/DownloadUri.h"

#include <json/json.h>

#include "util/NestingLimit.h"
#include "util/StringUtils.h"

namespace HttpWrapper {

void RewritePlaybackToDownload(std::string& uri)
{
    size_t found = uri.find("playback");
    if (found != std::string::npos) {
        uri.replace(found, 8, "download");
    }
}

bool ReadJsonDownloadUri(const char* body, int length, std::string& uri)
{
    // Checked before the reader, whose own limit (1,000 levels) is deeper than
    // a worker's stack holds: the reader stays the same, and so does what it
    // accepts.
    if (body == nullptr || length <= 0 || CountJsonOpenings(body, static_cast<size_t>(length)) > kMaxRequestOpenings) {
        return false;
    }
    Json::Value root;
    Json::Reader reader;
    if (!reader.parse(body, body + length, root, false) || !root.isObject() || !root.isMember("downloadRequest") ||
        !root["downloadRequest"].isObject() || !root["downloadRequest"].isMember("playbackURI") ||
        !root["downloadRequest"]["playbackURI"].isString()) {
        return false;
    }
    uri = root["downloadRequest"]["playbackURI"].asString();
    RewritePlaybackToDownload(uri);
    return true;
}

bool IsCompleteDownloadUri(const std::string& uri, const char* devIndex)
{
    return Contain(uri, "download") && Contain(uri, "starttime") && Contain(uri, "endtime") && Contain(uri, devIndex);
}

}  // namespace HttpWrapper
