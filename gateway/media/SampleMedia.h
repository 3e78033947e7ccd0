// A first start with an empty media folder gets one generated recording per
// configured device, so the defaults work out of the box. The content is
// deterministic: the same bytes on every machine.
#ifndef GATEWAY_SAMPLE_MEDIA_H
#define GATEWAY_SAMPLE_MEDIA_H

#include <cstdint>
#include <string>
#include <vector>

#include "config/GatewayConfig.h"

class Logger;

constexpr const char* kSampleRecordingName = "sample-0001.bin";
constexpr const char* kSampleStartTime = "20260101T000000Z";
constexpr const char* kSampleEndTime = "20260101T001000Z";
// Not a multiple of any block size, so the last block is always a short one.
constexpr uint64_t kSampleRecordingSize = 3 * 1024 * 1024 + 1234;

// Fills bytes [offset, offset + length) of the sample content.
void fillSampleBytes(uint64_t offset, unsigned char* out, size_t length);

// Creates the folder when missing. Writes the samples only when it holds
// nothing at all, so existing media is never touched. created tells whether it did.
bool createSampleMediaIfEmpty(const std::string& mediaFolder, const std::vector<DeviceConfig>& devices, Logger& log,
                              bool& created, std::string& error);

#endif  // GATEWAY_SAMPLE_MEDIA_H
