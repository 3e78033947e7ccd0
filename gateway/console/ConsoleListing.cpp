#include "console/ConsoleListing.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

#include <json/json.h>

#include "base/IsoTime.h"
#include "console/TalkTranscoder.h"
#include "media/RecordingsListing.h"

namespace {

std::string compact(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace

const TalkDevice* talkDeviceOf(const MediaLibrary& library, const TalkDeviceSet& talking, const std::string& devIndex)
{
    const DeviceMedia* media = library.findByIndex(devIndex);
    if (media == nullptr || !media->device.talk.enabled) {
        return nullptr;
    }
    const TalkDevice* device = talking.byChannel(media->device.talk.channel);
    return device != nullptr && device->devIndex == devIndex ? device : nullptr;
}

std::string consoleDevicesJson(const MediaLibrary& library, const TalkDeviceSet& talking, TalkOwners& owners,
                               int httpPort, const ConsoleCounters& counters, bool recordings)
{
    Json::Value devices(Json::arrayValue);
    for (const DeviceMedia& media : library.devices()) {
        const DeviceConfig& device = media.device;
        Json::Value entry(Json::objectValue);
        describeDevice(device, entry);
        entry["recordingCount"] = static_cast<Json::UInt64>(media.recordings.size());
        const TalkDevice* talker = talkDeviceOf(library, talking, device.devIndex);
        if (talker != nullptr) {
            entry["talkChannel"] = talker->channel;
            entry["codec"] = talker->codec->name;
            entry["talkFromConsole"] = whyConsoleCannotTalk(*talker->codec);
            entry["talkRunning"] = owners.running(TalkKey(talker->channel, httpPort));
        }
        const auto downloads = counters.consoleDownloads.find(device.devIndex);
        entry["downloadsFromConsole"] = downloads == counters.consoleDownloads.end() ? 0 : downloads->second;
        if (recordings) {
            entry["recordings"] = Json::Value(Json::arrayValue);
            for (const Recording& recording : media.recordings) {
                Json::Value item(Json::objectValue);
                describeRecording(recording, item);
                entry["recordings"].append(item);
            }
        }
        devices.append(entry);
    }
    Json::Value root(Json::objectValue);
    root["devices"] = devices;
    root["openDownloads"] = static_cast<Json::Int64>(counters.openDownloads);
    root["openTalks"] = static_cast<Json::Int64>(counters.openTalks);
    return compact(root);
}

std::vector<TalkCapture> listTalkCaptures(const std::string& folder)
{
    std::vector<TalkCapture> captures;
    DIR* directory = opendir(folder.c_str());
    if (directory == nullptr) {
        return captures;
    }
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        struct stat info;
        if (name.compare(0, 7, "talk-ch") != 0 || fstatat(dirfd(directory), name.c_str(), &info, 0) != 0 ||
            !S_ISREG(info.st_mode)) {
            continue;
        }
        captures.push_back(TalkCapture{name, static_cast<uint64_t>(info.st_size), static_cast<int64_t>(info.st_mtime)});
    }
    closedir(directory);
    std::sort(captures.begin(), captures.end(), [](const TalkCapture& a, const TalkCapture& b) {
        return a.modified != b.modified ? a.modified > b.modified : a.name > b.name;
    });
    if (captures.size() > kMaxCaptures) {
        captures.resize(kMaxCaptures);
    }
    return captures;
}

std::string talkCapturesJson(const std::vector<TalkCapture>& captures)
{
    Json::Value list(Json::arrayValue);
    for (const TalkCapture& capture : captures) {
        Json::Value item(Json::objectValue);
        item["name"] = capture.name;
        item["size"] = static_cast<Json::UInt64>(capture.size);
        item["modified"] = formatIsoTime(capture.modified);
        list.append(item);
    }
    Json::Value root(Json::objectValue);
    root["captures"] = list;
    return compact(root);
}
