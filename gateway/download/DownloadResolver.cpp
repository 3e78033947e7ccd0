#include "download/DownloadResolver.h"

#include "base/IsoTime.h"

namespace {

const char kMediaUrlScheme[] = "recording://";

bool refuse(Refusal& refusal, int restError, int statusIndex, const std::string& reason)
{
    refusal.restError = restError;
    refusal.statusIndex = statusIndex;
    refusal.reason = reason;
    return false;
}

const DeviceMedia* findDevice(const MediaLibrary& library, const PlaybackUri& uri, Refusal& refusal)
{
    if (!uri.deviceIndex.empty()) {
        const DeviceMedia* device = library.findByIndex(uri.deviceIndex);
        if (!device) {
            refuse(refusal, RestError::kBadDevIndex, RtspStatusIndex::kNotFound,
                   "unknown device \"" + uri.deviceIndex + "\"");
        }
        return device;
    }
    if (uri.rtspPort != 0) {
        const DeviceMedia* device = library.findByAddress(uri.host, uri.rtspPort);
        if (!device) {
            refuse(refusal, RestError::kBadDevIndex, RtspStatusIndex::kNotFound,
                   "no device at " + uri.host + ":" + std::to_string(uri.rtspPort));
        }
        return device;
    }
    refuse(refusal, RestError::kBadParameters, RtspStatusIndex::kBadRequest,
           "no device named (devIndex, device/<id>/ or rtspPort)");
    return nullptr;
}

bool readQuery(const PlaybackUri& uri, RecordingQuery& query, Refusal& refusal)
{
    if (!uri.hasParam("starttime") || !uri.hasParam("endtime")) {
        return refuse(refusal, RestError::kBadParameters, RtspStatusIndex::kBadRequest,
                      "starttime and endtime are required");
    }
    if (!parseIsoTime(uri.param("starttime"), query.start) || !parseIsoTime(uri.param("endtime"), query.end)) {
        return refuse(refusal, RestError::kIsoTimeFormatError, RtspStatusIndex::kBadRequest,
                      "starttime \"" + uri.param("starttime") + "\" or endtime \"" + uri.param("endtime") +
                          "\" is not an ISO 8601 time");
    }
    if (query.end <= query.start) {
        return refuse(refusal, RestError::kTimeRangeError, RtspStatusIndex::kBadRequest,
                      "endtime is not later than starttime");
    }
    query.hasName = uri.hasParam("name");
    query.name = uri.param("name");
    query.hasSize = uri.hasParam("size");
    if (query.hasSize) {
        const std::string size = uri.param("size");
        if (size.empty() || size.size() > 19 || size.find_first_not_of("0123456789") != std::string::npos) {
            return refuse(refusal, RestError::kBadParameters, RtspStatusIndex::kBadRequest,
                          "size \"" + size + "\" is not a byte count");
        }
        query.size = std::stoull(size);
    }
    return true;
}

}  // namespace

bool resolveDownload(const MediaLibrary& library, const PlaybackUri& uri, ResolvedDownload& download, Refusal& refusal)
{
    const DeviceMedia* device = findDevice(library, uri, refusal);
    RecordingQuery query;
    if (!device || !readQuery(uri, query, refusal)) {
        return false;
    }
    const Recording* recording = findRecording(*device, query);
    if (!recording) {
        return refuse(refusal, RestError::kNoRecord, RtspStatusIndex::kNotFound,
                      "device " + device->device.devIndex + " has no recording" +
                          (query.hasName ? " \"" + query.name + "\"" : std::string()) + " between " +
                          uri.param("starttime") + " and " + uri.param("endtime") +
                          (query.hasSize ? " of " + uri.param("size") + " bytes" : std::string()));
    }
    download.device = device;
    download.recording = recording;
    return true;
}

std::string makeMediaUrl(const DeviceMedia& device, const Recording& recording, const std::string& range)
{
    // Recording names are plain file names (see MediaLibrary), so no escaping is needed.
    return kMediaUrlScheme + device.device.devIndex + "/" + recording.name + (range.empty() ? "" : "?" + range);
}

const Recording* findByMediaUrl(const MediaLibrary& library, const std::string& mediaUrl, std::string* range,
                                const DeviceMedia** device)
{
    const std::string scheme = kMediaUrlScheme;
    if (mediaUrl.compare(0, scheme.size(), scheme) != 0) {
        return nullptr;
    }
    size_t slash = mediaUrl.find('/', scheme.size());
    if (slash == std::string::npos) {
        return nullptr;
    }
    const DeviceMedia* media = library.findByIndex(mediaUrl.substr(scheme.size(), slash - scheme.size()));
    if (!media) {
        return nullptr;
    }
    const size_t query = mediaUrl.find('?', slash);
    const std::string name = mediaUrl.substr(slash + 1, query == std::string::npos ? query : query - slash - 1);
    if (range) {
        *range = query == std::string::npos ? std::string() : mediaUrl.substr(query + 1);
    }
    for (const Recording& recording : media->recordings) {
        if (recording.name == name) {
            if (device != nullptr) {
                *device = media;
            }
            return &recording;
        }
    }
    return nullptr;
}
