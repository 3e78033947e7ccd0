#include "media/MediaLibrary.h"

#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>

#include "base/IsoTime.h"
#include "base/JsonFile.h"
#include "base/Logger.h"

namespace {

bool isPlainFileName(const std::string& name)
{
    if (name.empty() || name == "." || name == ".." || name == kRecordingIndexFile) {
        return false;
    }
    return name.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_.") ==
           std::string::npos;
}

bool readEntry(const Json::Value& entry, const std::string& folder, const std::string& where, Recording& recording,
               std::string& error)
{
    if (!entry.isObject()) {
        error = where + ": must be an object";
        return false;
    }
    for (const std::string& member : entry.getMemberNames()) {
        if (member != "name" && member != "starttime" && member != "endtime") {
            error = where + "." + member + ": unknown field";
            return false;
        }
    }
    if (!entry["name"].isString() || !isPlainFileName(entry["name"].asString())) {
        error = where + ".name: must be a file name in the device folder";
        return false;
    }
    recording.name = entry["name"].asString();
    recording.path = folder + "/" + recording.name;
    if (!entry["starttime"].isString() || !parseIsoTime(entry["starttime"].asString(), recording.start)) {
        error = where + ".starttime: must be an ISO 8601 time such as 20260101T000000Z";
        return false;
    }
    if (!entry["endtime"].isString() || !parseIsoTime(entry["endtime"].asString(), recording.end)) {
        error = where + ".endtime: must be an ISO 8601 time such as 20260101T001000Z";
        return false;
    }
    if (recording.end <= recording.start) {
        error = where + ".endtime: must be later than starttime";
        return false;
    }
    // The entry itself must be the file: a symbolic link could lead out of the
    // device folder (the recording is opened without following one, too).
    struct stat info;
    if (lstat(recording.path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        error = where + ".name: " + recording.path + " is not a regular file";
        return false;
    }
    recording.size = static_cast<uint64_t>(info.st_size);
    return true;
}

bool overlaps(const Recording& recording, const RecordingQuery& query)
{
    return recording.start < query.end && query.start < recording.end;
}

}  // namespace

bool readRecordingIndex(const std::string& folder, std::vector<Recording>& recordings, std::string& error,
                        std::vector<std::string>* skipped)
{
    recordings.clear();
    Json::Value root;
    if (!readJsonFile(folder + "/" + kRecordingIndexFile, kMaxIndexOpenings, root, error)) {
        return false;
    }
    return readRecordingEntries(root, folder, recordings, error, skipped);
}

bool readRecordingEntries(const Json::Value& root, const std::string& folder, std::vector<Recording>& recordings,
                          std::string& error, std::vector<std::string>* skipped)
{
    recordings.clear();
    const std::string path = folder + "/" + kRecordingIndexFile;
    if (!root.isObject() || root.getMemberNames() != std::vector<std::string>{"recordings"} ||
        !root["recordings"].isArray()) {
        error = path + ": must be an object with one array \"recordings\"";
        return false;
    }
    std::set<std::string> names;
    const Json::Value& entries = root["recordings"];
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
        Recording recording;
        const std::string where = path + ": recordings[" + std::to_string(i) + "]";
        std::string problem;
        if (!readEntry(entries[i], folder, where, recording, problem)) {
        } else if (!names.insert(recording.name).second) {
            problem = where + ".name: \"" + recording.name + "\" is listed twice";
        } else {
            recordings.push_back(recording);
            continue;
        }
        if (skipped == nullptr) {
            error = problem;
            return false;
        }
        skipped->push_back(problem);
    }
    std::stable_sort(recordings.begin(), recordings.end(),
                     [](const Recording& a, const Recording& b) { return a.start < b.start; });
    return true;
}

bool writeRecordingIndex(const std::string& folder, const std::vector<Recording>& recordings, std::string& error)
{
    Json::Value root(Json::objectValue);
    root["recordings"] = Json::Value(Json::arrayValue);
    for (const Recording& recording : recordings) {
        Json::Value entry(Json::objectValue);
        entry["name"] = recording.name;
        entry["starttime"] = formatIsoTime(recording.start);
        entry["endtime"] = formatIsoTime(recording.end);
        root["recordings"].append(entry);
    }
    const std::string path = folder + "/" + kRecordingIndexFile;
    const std::string temporary = path + ".tmp";
    {
        std::ofstream file(temporary, std::ios::trunc);
        file << root.toStyledString();
        if (!file.flush()) {
            error = temporary + ": cannot be written";
            return false;
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = path + ": cannot be replaced";
        return false;
    }
    return true;
}

const Recording* findRecording(const DeviceMedia& media, const RecordingQuery& query)
{
    for (const Recording& recording : media.recordings) {
        if (query.hasName && recording.name != query.name) {
            continue;
        }
        if (query.hasSize && recording.size != query.size) {
            continue;
        }
        if (overlaps(recording, query)) {
            return &recording;
        }
    }
    return nullptr;
}

bool MediaLibrary::load(const std::string& mediaFolder, const std::vector<DeviceConfig>& devices, Logger& log,
                        std::string& error, bool strict, const MediaLibrary* previous)
{
    m_devices.clear();
    for (const DeviceConfig& device : devices) {
        DeviceMedia media;
        media.device = device;
        const std::string folder = mediaFolder + "/" + device.folder;
        struct stat info;
        const std::string index = folder + "/" + kRecordingIndexFile;
        const DeviceMedia* before = previous != nullptr ? previous->findByIndex(device.devIndex) : nullptr;
        if (lstat(index.c_str(), &info) != 0) {
            if (before != nullptr && before->indexed) {
                error = "device " + device.devIndex + ": " + index + " is gone";
                return false;
            }
            log.logf(kLogWarn, "device %s has no recordings: %s does not exist", device.devIndex.c_str(),
                     index.c_str());
        } else {
            std::vector<std::string> skipped;
            media.indexed = true;
            if (!readRecordingIndex(folder, media.recordings, error, strict ? nullptr : &skipped)) {
                // A reload that cannot read an index keeps every device as it was.
                if (strict || previous != nullptr) {
                    return false;
                }
                log.logf(kLogError, "device %s has no recordings: %s", device.devIndex.c_str(), error.c_str());
                media.recordings.clear();
            }
            for (const std::string& problem : skipped) {
                log.logf(kLogError, "recording skipped: %s", problem.c_str());
            }
            log.logf(kLogInfo, "device %s: %zu recording(s) in %s%s", device.devIndex.c_str(), media.recordings.size(),
                     folder.c_str(), skipped.empty() ? "" : " (bad entries skipped)");
        }
        m_devices.push_back(media);
    }
    return true;
}

const DeviceMedia* MediaLibrary::findByIndex(const std::string& devIndex) const
{
    for (const DeviceMedia& media : m_devices) {
        if (media.device.devIndex == devIndex) {
            return &media;
        }
    }
    return nullptr;
}

const DeviceMedia* MediaLibrary::findByAddress(const std::string& address, int rtspPort) const
{
    for (const DeviceMedia& media : m_devices) {
        if (media.device.address == address && media.device.rtspPort == rtspPort) {
            return &media;
        }
    }
    return nullptr;
}
