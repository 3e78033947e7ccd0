// The recordings the gateway can serve. The media folder holds one folder per
// device; each holds its recording files and an index, recordings.json:
//   {"recordings": [{"name": "sample-0001.bin",
//                    "starttime": "20260101T000000Z", "endtime": "20260101T001000Z"}]}
// The size of a recording is the size of its file. The indexes are read once
// at start; the library does not change afterwards, so any thread may read it.
#ifndef GATEWAY_MEDIA_LIBRARY_H
#define GATEWAY_MEDIA_LIBRARY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

#include "config/GatewayConfig.h"

class Logger;

constexpr const char* kRecordingIndexFile = "recordings.json";

struct Recording {
    std::string name;  // file name inside the device folder
    std::string path;
    int64_t start = 0;  // seconds since the epoch
    int64_t end = 0;
    uint64_t size = 0;
};

struct DeviceMedia {
    DeviceConfig device;
    std::vector<Recording> recordings;  // by start time
    bool indexed = false;               // its folder had an index when it was loaded
};

// Most '[' and '{' a recordings index may hold: a million recordings.
constexpr size_t kMaxIndexOpenings = 1000000 + 16;

// What a download asks for; name and size narrow the choice when given.
struct RecordingQuery {
    int64_t start = 0;
    int64_t end = 0;
    bool hasName = false;
    std::string name;
    bool hasSize = false;
    uint64_t size = 0;
};

// Reads a device folder's index; false with a message naming the file and the
// entry. With skipped given, a bad entry is left out and described there
// instead, and only an index that cannot be read at all fails.
bool readRecordingIndex(const std::string& folder, std::vector<Recording>& recordings, std::string& error,
                        std::vector<std::string>* skipped = nullptr);

// The same for an index already parsed (the fuzz target's entry point).
bool readRecordingEntries(const Json::Value& root, const std::string& folder, std::vector<Recording>& recordings,
                          std::string& error, std::vector<std::string>* skipped = nullptr);

// Writes the index of the given recordings (names and times) into the folder.
bool writeRecordingIndex(const std::string& folder, const std::vector<Recording>& recordings, std::string& error);

// The first recording by start time that overlaps [start, end) and has the
// asked name and size; null when there is none.
const Recording* findRecording(const DeviceMedia& media, const RecordingQuery& query);

class MediaLibrary {
public:
    // A device without a folder or index simply has no recordings (logged).
    // A bad entry of an index is logged and skipped, and an index that cannot
    // be read leaves its device without recordings, so one device's mistake
    // does not stop the others; strict makes either an error instead. A
    // reload (previous: the library it replaces) is all or nothing: an index
    // that cannot be read, or that is gone where previous had one, fails it.
    bool load(const std::string& mediaFolder, const std::vector<DeviceConfig>& devices, Logger& log, std::string& error,
              bool strict = false, const MediaLibrary* previous = nullptr);

    const DeviceMedia* findByIndex(const std::string& devIndex) const;
    const DeviceMedia* findByAddress(const std::string& address, int rtspPort) const;
    const std::vector<DeviceMedia>& devices() const { return m_devices; }

private:
    std::vector<DeviceMedia> m_devices;
};

#endif  // GATEWAY_MEDIA_LIBRARY_H
