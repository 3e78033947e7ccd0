#include "media/RecordingsListing.h"

#include <json/json.h>

#include "base/IsoTime.h"

void describeDevice(const DeviceConfig& device, Json::Value& entry)
{
    entry["devIndex"] = device.devIndex;
    entry["name"] = device.name;
    entry["address"] = device.address;
    entry["rtspPort"] = device.rtspPort;
}

void describeRecording(const Recording& recording, Json::Value& item)
{
    item["name"] = recording.name;
    item["size"] = static_cast<Json::UInt64>(recording.size);
    item["starttime"] = formatIsoTime(recording.start);
    item["endtime"] = formatIsoTime(recording.end);
}

std::string recordingsListing(const MediaLibrary& library)
{
    Json::Value devices(Json::arrayValue);
    for (const DeviceMedia& media : library.devices()) {
        const DeviceConfig& device = media.device;
        Json::Value entry(Json::objectValue);
        describeDevice(device, entry);
        if (device.talk.enabled) {
            entry["talkChannel"] = device.talk.channel;
        }
        entry["recordings"] = Json::Value(Json::arrayValue);
        for (const Recording& recording : media.recordings) {
            Json::Value item(Json::objectValue);
            describeRecording(recording, item);
            item["playbackURI"] = "rtsp://" + device.address + ":" + std::to_string(device.rtspPort) +
                                  "/Streaming/tracks/101/playback?starttime=" + formatIsoTime(recording.start) +
                                  "&endtime=" + formatIsoTime(recording.end) + "&name=" + recording.name +
                                  "&size=" + std::to_string(recording.size) + "&devIndex=" + device.devIndex;
            entry["recordings"].append(item);
        }
        devices.append(entry);
    }
    Json::Value root(Json::objectValue);
    root["devices"] = devices;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, root) + "\n";
}
