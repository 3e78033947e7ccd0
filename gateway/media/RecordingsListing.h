// GET /recordings on the admin endpoint (one line of JSON): every device and what can be
// downloaded from it, so an operator or a UI sees the offer without reading
// folders. Each recording comes with the playback URI a client puts into the
// JSON download form:
//   {"devices": [{"devIndex": "...", "name": "lobby", "address": "127.0.0.1", "rtspPort": 554,
//                 "talkChannel": 1,
//                 "recordings": [{"name": "lobby-0001.bin", "size": 3146962,
//                                 "starttime": "20260101T000000Z", "endtime": "20260101T001000Z",
//                                 "playbackURI": "rtsp://127.0.0.1:554/Streaming/tracks/101/playback?..."}]}]}
// ("talkChannel" is absent for a device that does not talk.)
#ifndef GATEWAY_RECORDINGS_LISTING_H
#define GATEWAY_RECORDINGS_LISTING_H

#include <string>

#include "media/MediaLibrary.h"

namespace Json {
class Value;
}

std::string recordingsListing(const MediaLibrary& library);
// What every listing says of a device: its devIndex, name, address and RTSP port.
void describeDevice(const DeviceConfig& device, Json::Value& entry);
// What every listing says of a recording: its name, size, start and end.
void describeRecording(const Recording& recording, Json::Value& item);

#endif  // GATEWAY_RECORDINGS_LISTING_H
