// Turns the playback URI of a download into a device and one of its
// recordings, or into the refusal the client should get.
#ifndef GATEWAY_DOWNLOAD_RESOLVER_H
#define GATEWAY_DOWNLOAD_RESOLVER_H

#include "MediaLibrary.h"
#include "PlaybackUri.h"
#include "RestErrors.h"

struct ResolvedDownload {
    const DeviceMedia* device = nullptr;
    const Recording* recording = nullptr;
};

// The device is named by "devIndex", else by a "device/<id>/" segment, else by
// the address and "rtspPort"; "starttime" and "endtime" are required, "name"
// and "size" narrow the choice.
bool resolveDownload(const MediaLibrary& library, const PlaybackUri& uri, ResolvedDownload& download, Refusal& refusal);

// The media URL the filter chain hands to OnOpen, and its reading there.
std::string makeMediaUrl(const DeviceMedia& device, const Recording& recording);
// device, when given, is set to the recording's device.
const Recording* findByMediaUrl(const MediaLibrary& library, const std::string& mediaUrl,
                                const DeviceMedia** device = nullptr);

#endif  // GATEWAY_DOWNLOAD_RESOLVER_H
