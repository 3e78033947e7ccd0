// Turns the playback URI of a download into a device and one of its
// recordings, or into the refusal the client should get.
#ifndef GATEWAY_DOWNLOAD_RESOLVER_H
#define GATEWAY_DOWNLOAD_RESOLVER_H

#include "media/MediaLibrary.h"
#include "download/PlaybackUri.h"
#include "base/RestErrors.h"

struct ResolvedDownload {
    const DeviceMedia* device = nullptr;
    const Recording* recording = nullptr;
};

// The device is named by "devIndex", else by a "device/<id>/" segment, else by
// the address and "rtspPort"; "starttime" and "endtime" are required, "name"
// and "size" narrow the choice.
bool resolveDownload(const MediaLibrary& library, const PlaybackUri& uri, ResolvedDownload& download, Refusal& refusal);

// The media URL the filter chain hands to OnOpen, and its reading there. A
// download that asked for a byte range carries the plug-in's Download-Range
// head after a "?", for the sink to resolve once the file is open; device,
// when given, is set to the recording's device.
std::string makeMediaUrl(const DeviceMedia& device, const Recording& recording, const std::string& range = "");
const Recording* findByMediaUrl(const MediaLibrary& library, const std::string& mediaUrl, std::string* range = nullptr,
                                const DeviceMedia** device = nullptr);

#endif  // GATEWAY_DOWNLOAD_RESOLVER_H
