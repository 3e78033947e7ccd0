#include "media/SampleMedia.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/IsoTime.h"
#include "base/Logger.h"
#include "media/MediaLibrary.h"

namespace {

// splitmix64: a fixed, portable sequence of 64-bit words.
uint64_t sampleWord(uint64_t index)
{
    uint64_t z = (index + 1) * 0x9E3779B97F4A7C15ULL;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

bool isEmptyFolder(const std::string& folder, bool& empty, std::string& error)
{
    DIR* dir = opendir(folder.c_str());
    if (!dir) {
        error = folder + ": " + strerror(errno);
        return false;
    }
    empty = true;
    while (struct dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            empty = false;
            break;
        }
    }
    closedir(dir);
    return true;
}

bool makeFolder(const std::string& folder, std::string& error)
{
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        error = folder + ": " + strerror(errno);
        return false;
    }
    return true;
}

bool writeSampleFile(const std::string& path, std::string& error)
{
    // Written beside the target and renamed, so an interrupted start leaves no half file.
    const std::string temporary = path + ".tmp";
    FILE* file = fopen(temporary.c_str(), "wbe");
    if (!file) {
        error = temporary + ": " + strerror(errno);
        return false;
    }
    std::vector<unsigned char> chunk(64 * 1024);
    bool ok = true;
    for (uint64_t offset = 0; offset < kSampleRecordingSize && ok; offset += chunk.size()) {
        size_t length = static_cast<size_t>(std::min<uint64_t>(chunk.size(), kSampleRecordingSize - offset));
        fillSampleBytes(offset, chunk.data(), length);
        ok = fwrite(chunk.data(), 1, length, file) == length;
    }
    ok = fclose(file) == 0 && ok;
    if (!ok || rename(temporary.c_str(), path.c_str()) != 0) {
        error = path + ": cannot be written";
        remove(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace

void fillSampleBytes(uint64_t offset, unsigned char* out, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        uint64_t position = offset + i;
        uint64_t word = sampleWord(position / 8);
        out[i] = static_cast<unsigned char>(word >> (8 * (position % 8)));
    }
}

bool createSampleMediaIfEmpty(const std::string& mediaFolder, const std::vector<DeviceConfig>& devices, Logger& log,
                              bool& created, std::string& error)
{
    created = false;
    bool empty = false;
    if (!makeFolder(mediaFolder, error) || !isEmptyFolder(mediaFolder, empty, error)) {
        return false;
    }
    if (!empty) {
        return true;
    }
    for (const DeviceConfig& device : devices) {
        const std::string folder = mediaFolder + "/" + device.folder;
        Recording sample;
        sample.name = kSampleRecordingName;
        parseIsoTime(kSampleStartTime, sample.start);
        parseIsoTime(kSampleEndTime, sample.end);
        if (!makeFolder(folder, error) || !writeSampleFile(folder + "/" + sample.name, error) ||
            !writeRecordingIndex(folder, {sample}, error)) {
            return false;
        }
        log.logf(kLogInfo, "created sample recording %s/%s (%llu bytes)", folder.c_str(), sample.name.c_str(),
                 static_cast<unsigned long long>(kSampleRecordingSize));
    }
    created = true;
    return true;
}
