// A media folder in a fresh temporary directory, removed again after the test.
#ifndef GATEWAY_TEST_MEDIA_FIXTURE_H
#define GATEWAY_TEST_MEDIA_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "base/Logger.h"
#include "media/MediaLibrary.h"

class MediaFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/gateway-media-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder = pattern;
        log.setLevel(kLogError + 1);  // the cases provoke errors on purpose
    }
    void TearDown() override { ASSERT_EQ(system(("rm -rf '" + folder + "'").c_str()), 0); }

    // A device folder with the given files and an index listing them as written.
    void addDevice(const DeviceConfig& device, const std::string& indexJson,
                   const std::vector<std::pair<std::string, std::string>>& files)
    {
        const std::string dir = folder + "/" + device.folder;
        ASSERT_EQ(system(("mkdir -p '" + dir + "'").c_str()), 0);
        for (const auto& file : files) {
            std::ofstream(dir + "/" + file.first, std::ios::binary) << file.second;
        }
        std::ofstream(dir + "/" + kRecordingIndexFile) << indexJson;
        devices.push_back(device);
    }

    static DeviceConfig device(const std::string& devIndex, int rtspPort)
    {
        DeviceConfig config;
        config.devIndex = devIndex;
        config.rtspPort = rtspPort;
        config.folder = devIndex;
        return config;
    }

    std::string folder;
    std::vector<DeviceConfig> devices;
    Logger log;
};

#endif  // GATEWAY_TEST_MEDIA_FIXTURE_H
